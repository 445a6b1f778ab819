// Computes the flow of a sender that is not running, from its state directory and the rings, and, if the servers can be
// reached, from the newest message of each report.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/send/SenderState.h"
#include "tools/qxrelay/status/Flow.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::relay {

// The newest message of each report that has one, by the report's name. A few requests are in flight at a time; after
// `time_ms` the call returns what it has. [any thread]
[[nodiscard]] std::map<std::string, MessageHead> NewestMessages(PublishStream& stream, const std::string& prefix,
                                                                const std::string& host,
                                                                const std::vector<std::string>& reports,
                                                                std::int64_t time_ms);

struct StoppedSender {
  std::string host;
  std::string directory;  // of the reports
  SendSettings settings;
  ReportStates states;  // of its state directory
  std::map<std::string, MessageHead> newest;
  std::optional<ServiceFlow> last;  // the figures that the sender published last

  // The names of the reports, from all these sources. [any thread]
  [[nodiscard]] std::vector<std::string> Reports() const;
  // `now` is a time of the monotonic clock, `wall_ms` the time since 1970. [any thread]
  [[nodiscard]] ServiceFlow Flow(std::int64_t now, std::int64_t wall_ms) const;
};

}  // namespace qx::relay
