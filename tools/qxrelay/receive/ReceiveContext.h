// The data that all parts of a receiver use: the stream's state, the root, the settings, the counters, and the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/receive/CollectorRoot.h"
#include "tools/qxrelay/receive/ReceiverCounters.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::relay {

// Milliseconds of the monotonic clock.
using TimeMs = std::int64_t;

// A message that can be acknowledged after the next sync.
struct HandledMessage {
  std::uint64_t sequence = 0;
  std::string receipt;
};

// Threads: one thread. Owns: values only; the objects that it refers to outlive the receiver.
struct ReceiveContext {
  ConsumeStream& stream;
  CollectorRoot& root;
  std::function<void(const std::string&)> log;  // a line for the operator
  std::function<double()> random;               // from 0 up to 1
  StreamSettings stream_settings;
  ReceiveSettings settings;
  std::size_t open_max = 300;                                        // reports with open files
  std::size_t queue_bytes_max = std::size_t{64} * 1024 * 1024;       // of messages after a hole, of all hosts
  std::size_t host_queue_bytes_max = std::size_t{32} * 1024 * 1024;  // of one host

  ReceiverCounters counters = {};
  ConsumerState state = {};                  // as it was last read
  std::vector<HandledMessage> handled = {};  // since the last sync
  std::size_t queued_bytes = 0;
  bool needs_base_sync = false;   // a report waits for its base to be on the disk
  std::string system_fault = {};  // since the last sync that succeeded; empty: no fault
};

}  // namespace qx::relay
