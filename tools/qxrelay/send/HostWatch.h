// Finds another sender that uses this host's name. Every sender sends the labels of its host when it starts, and the
// newest message with labels shows which sender is newer. The messages of reports are not enough for this check: a
// report without new records gets one only every quarter of `age`.
#pragma once

#include <algorithm>
#include <optional>
#include <string>

#include "tools/qxrelay/send/Place.h"
#include "tools/qxrelay/send/SendContext.h"

namespace qx::relay {

// Threads: one thread.
class HostWatch {
 public:
  static constexpr TimeMs kPeriodMs = 5000;

  HostWatch(SendContext& context, std::string subject, std::size_t owner)
      : context_(context), subject_(std::move(subject)), owner_(owner) {}

  // Looks up the newest message with labels, if it is time for that. [owning thread]
  void Step(TimeMs now);
  void Connected(TimeMs now);

  // Whether the reply to the last look-up shows another sender; unset for any other reply. [owning thread]
  [[nodiscard]] std::optional<Rival> OnReply(TimeMs now, const StreamReply& reply);

  // Whether the last look-up had no answer in time: there is no stream, it has no leader, or this host lacks the right.
  // [owning thread]
  [[nodiscard]] bool IsUnanswered() const { return is_unanswered_; }

  // The session of the newest message with labels; 0 if there is no such message. [owning thread]
  [[nodiscard]] std::uint64_t Session() const { return session_; }
  [[nodiscard]] TimeMs Wake() const { return token_ != 0 ? std::min(due_, deadline_) : due_; }

 private:
  SendContext& context_;
  std::string subject_;
  std::size_t owner_;
  std::uint64_t token_ = 0;
  std::uint64_t session_ = 0;
  TimeMs due_ = 0;
  TimeMs deadline_ = 0;  // of the answer, if token_ is not 0
  bool is_unanswered_ = false;
};

}  // namespace qx::relay
