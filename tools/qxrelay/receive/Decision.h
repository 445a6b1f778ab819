// Decides what a collector does with a message, from the numbers of the message and the position of its report.
//
//   position                  message                                          => decision
//   unknown                   first 0, or nothing of the report is before it   => take: the report begins
//                             other                                            => wait
//   of another incarnation    from before that incarnation                     => take: all of it is a repeat
//                             nothing of the report is before it               => take: a new incarnation begins
//                             other                                            => wait
//   next is before first      nothing of the report is before it               => take: what is between is lost
//                             other                                            => wait: an earlier message is missing
//   next is first or later    its records before `next` are those of the file  => take: only its records from `next` on
//                             one of them is another                           => contradicted: another program, or a
//                                                                                 power failure, changed the report
//
// "Nothing of the report is before it" means that no earlier message of the report will come, neither for the first
// time nor again. Only then are the missing records lost: after a restart, messages can come in another order.
//
// Everything here is pure. Throws std::bad_alloc. [any thread]
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "tools/qxrelay/message/Message.h"

namespace qx::relay {

// The position of a report.
struct ReportPosition {
  bool is_known = false;
  std::uint64_t incarnation = 0;
  std::uint64_t next = 0;      // number of the record that is written next
  std::uint64_t sequence = 0;  // of the message with which the incarnation began on this collector
};

// The hash of the report's record of this number (RecordHash); 0 if the report does not have it.
using HashOfRecord = std::function<std::uint64_t(std::uint64_t number)>;

struct IncomingMessage {
  const MessageHead& head;
  std::span<const std::string_view> texts;
  std::uint64_t sequence = 0;  // in the stream
  bool is_next = false;        // no earlier message of the report will come
};

enum class Verdict : std::uint8_t { kTake, kWait, kContradicted };

struct Decision {
  Verdict verdict = Verdict::kWait;
  bool begins = false;        // the report, or a new incarnation of it, begins with number `next`
  std::uint64_t next = 0;     // number of the first record that is written, or, if none is, of the record after the gap
  std::uint64_t missing = 0;  // lost records before the message
  std::uint64_t gap = 0;      // records that the message says are lost, without those that were known already
  std::uint64_t repeats = 0;  // records that the report already has
  std::size_t skip = 0;       // the number of texts, from the first one on, that are not written

  // Whether the next record has another number than the files and their base show. If so, a new base is written first.
  [[nodiscard]] bool NeedsBase() const { return begins || missing > 0 || gap > 0; }

  friend bool operator==(const Decision&, const Decision&) = default;
};

[[nodiscard]] Decision Decide(const ReportPosition& position, const IncomingMessage& message,
                              const HashOfRecord& hash_of);

}  // namespace qx::relay
