// The data that all parts of a sender use: the stream, the state directory, the settings, the counters, and the log.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/send/Place.h"
#include "tools/qxrelay/send/ReportSender.h"
#include "tools/qxrelay/send/SenderState.h"
#include "tools/qxrelay/send/SentReport.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::relay {

// Counters of a sender since its start, over all reports.
struct SenderCounters : SentCounters {
  std::uint64_t bytes = 0;         // of stored messages
  std::uint64_t refused = 0;       // messages that a server refused
  std::uint64_t conflicts = 0;     // of `refused`: the newest message was another one than expected
  std::uint64_t unanswered = 0;    // requests
  std::uint64_t look_ups = 0;      // answered
  std::uint64_t incarnations = 0;  // begun
  std::uint64_t foreign = 0;       // newest messages that are not messages of the relay
  std::uint64_t connects = 0;
  std::uint64_t opens = 0;  // of stores, to search for records
};

// Adds bytes of memory to a sum until the object is destroyed. The sum outlives the object.
//
// Threads: one thread.
class CountedBytes {
 public:
  CountedBytes() = default;
  CountedBytes(std::size_t& sum, std::size_t bytes) : sum_(&sum), bytes_(bytes) { *sum_ += bytes_; }
  CountedBytes(CountedBytes&& other) noexcept : sum_(std::exchange(other.sum_, nullptr)), bytes_(other.bytes_) {}
  CountedBytes& operator=(CountedBytes&& other) noexcept {
    std::swap(sum_, other.sum_);
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~CountedBytes() {
    if (sum_ != nullptr) *sum_ -= bytes_;
  }

 private:
  std::size_t* sum_ = nullptr;
  std::size_t bytes_ = 0;
};

// Threads: one thread. Owns: nothing; everything outlives the sender.
struct SendContext {
  static constexpr unsigned kOwnerBits = 20;  // at most a million reports
  // Limits the memory: after a time without servers all reports have records to send; these records stay in the rings.
  static constexpr std::size_t kKeptBytesMax = std::size_t{8} * 1024 * 1024;

  PublishStream& stream;
  SenderState& state;
  std::function<void(const std::string&)> log;  // a line for the operator
  std::function<double()> random;               // from 0 up to 1
  std::function<std::uint64_t()> random_number;
  std::function<std::int64_t()> wall_ms;  // milliseconds since 1970
  std::string host;
  std::string directory;  // of the reports
  StreamSettings stream_settings;
  SendSettings settings;
  SenderTimes times;
  bool takes_over = false;

  SenderCounters counters = {};
  Rival rival = Rival::kNone;  // found by any part
  std::uint64_t last_token = 0;
  std::size_t payload_max = 0;                   // of the connection
  int look_ups_free = 4;                         // at once
  std::deque<std::size_t> look_up_waiting = {};  // owners that wait for a free one, in order
  // The newest message with the labels of this host, since the connection was made: whether it was looked up, and its
  // sequence if it has this identity.
  bool are_labels_known = false;
  std::uint64_t own_labels_sequence = 0;
  bool needs_state = false;    // a report waits until the state directory has its new incarnation
  std::size_t kept_bytes = 0;  // of messages in flight, and of records that are kept for the next message

  // A new token for a request of this owner.
  [[nodiscard]] std::uint64_t NewToken(std::size_t owner) { return ++last_token << kOwnerBits | owner; }
  [[nodiscard]] static std::size_t OwnerOf(std::uint64_t token) { return token & ((1U << kOwnerBits) - 1); }
};

}  // namespace qx::relay
