// Decides what the sender of one report does next. It is a state machine without any input or output.
//
//   Waiting ----Connected----> LookUp ----newest or none----> Place ----Placed----> Follow <---+
//      ^                         ^                              ^                     |        | Stored
//      |                         |  a failure: after a pause    |  another store      v        |
//      +----Disconnected---- any state                          +---------------- Examined -> Send
//
// Its rules, which the tables in tests/qxrelay/ReportSenderTest.cpp show:
//   - One message is in flight at a time, and nothing is sent before everything before it is stored.
//   - After a failed or unanswered publish the sender waits, looks up the newest message, and continues after this
//     message: the stream decides what it has, not the sender. The same happens if the sequence of an acknowledgement
//     is not higher than that of the previous one.
//   - Records wait for others until a message is full, or until the linger time is over. The linger time begins at the
//     last examination that found no record.
//   - A report with few records is examined once in the linger time; a report that fills messages or its ring is
//     examined more often.
//   - If there are no records, the first message is an empty one, so that an earlier sender notices this one. It is
//     repeated, so that the newest message of the report does not expire.
//   - Once another sender was found, the sender stays stopped.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "tools/qxrelay/send/Place.h"
#include "tools/qxrelay/send/StoreNumbers.h"

namespace qx::relay {

// Milliseconds of the monotonic clock.
using TimeMs = std::int64_t;

struct SenderTimes {
  TimeMs linger = 100;
  TimeMs poll = 20;         // between two checks of a busy report
  TimeMs poll_idle = 250;   // the same for a report without records for two seconds
  TimeMs timeout = 5000;    // for an acknowledgement or a look-up
  TimeMs heartbeat = 3600;  // between two messages of a report
  std::uint64_t batch_bytes = 65'536;
};

enum class ActionKind : std::uint8_t {
  kWait,     // until a time, or the next event
  kLookUp,   // ask for the newest message, if a look-up is free; then LookUpSent
  kPlace,    // find the place (FindPlace); then Placed
  kExamine,  // check the store; then Examined
  kGap,      // send that records are lost; then Sent
  kRecords,  // send records; then Sent
  kEmpty,    // send an empty message; then Sent
  kStopped,  // nothing is sent any more
};

struct Action {
  ActionKind kind = ActionKind::kWait;
  TimeMs until = 0;         // of kWait
  std::uint64_t first = 0;  // number of the first record to send, or of the gap
  std::uint64_t count = 0;  // records of the gap, or the most records to send

  friend bool operator==(const Action&, const Action&) = default;
};

// The state of the store that the sender needs for its decision.
struct Examination {
  int error = 0;                 // the store cannot be read now
  Proof proof = Proof::kProven;  // of the position
  RecordRange sendable = {};
  std::uint64_t bytes = 0;  // of text from the position on, approximately
  std::uint32_t slots = 0;  // of the ring; 0: not known
};

// Threads: one thread. Owns: values only. The times of the calls must not decrease. An event whose token is not the
// current one answers an earlier request, and is ignored.
class ReportSender {
 public:
  // `random` returns a number from 0 up to 1.
  ReportSender(const SenderTimes& times, std::function<double()> random) : times_(times), random_(std::move(random)) {}

  // The next action. A request that has no answer in time counts as failed here. [owning thread]
  [[nodiscard]] Action Next(TimeMs now);

  void Connected(TimeMs now);
  void Disconnected();
  void LookUpSent(TimeMs now, std::uint64_t token);
  // The newest message of the subject was found (`sequence` 0: there is no message). True if the token is the current
  // one: the next action is then kPlace.
  bool NewestFound(std::uint64_t token, std::uint64_t sequence);
  // From now on the sender continues at this place. [owning thread]
  void Placed(TimeMs now, const Mark& mark);
  // The next action after an examination: to send something, or to wait. [owning thread]
  [[nodiscard]] Action Examined(TimeMs now, const Examination& found);
  // The message that Examined requested is in flight; `next` and `hash` are the position after it. [owning thread]
  void Sent(TimeMs now, std::uint64_t token, std::uint64_t next, std::uint64_t hash);
  // The message is stored. True if the token is the current one. [owning thread]
  bool Stored(TimeMs now, std::uint64_t token, std::uint64_t sequence);
  // A request was refused or could not be sent. True if the token is the current one. [owning thread]
  bool Failed(TimeMs now, std::uint64_t token);
  // The records that Examined requested cannot be read: the store is examined again later. [owning thread]
  void NotSent(TimeMs now);
  void Stop() { phase_ = Phase::kStopped; }

  [[nodiscard]] const Mark& Position() const { return position_; }
  // For Publish: the sequence of the newest message of the subject, as far as the sender knows it.
  [[nodiscard]] std::uint64_t LastSequence() const { return last_sequence_; }
  // Whether a reply with this token answers the request in flight.
  [[nodiscard]] bool IsCurrent(std::uint64_t token) const { return IsInFlight() && token == token_; }
  [[nodiscard]] bool IsInFlight() const { return phase_ == Phase::kPublishing || phase_ == Phase::kLookingUp; }
  [[nodiscard]] bool IsStopped() const { return phase_ == Phase::kStopped; }
  [[nodiscard]] std::uint32_t Failures() const { return failures_; }
  void SetTimes(const SenderTimes& times) { times_ = times; }

 private:
  enum class Phase : std::uint8_t {
    kDisconnected,
    kMustLookUp,
    kLookingUp,
    kMustPlace,
    kFollowing,
    kPublishing,
    kStopped
  };

  void Fail(TimeMs now);
  [[nodiscard]] Action WaitFor(TimeMs now, TimeMs time);
  [[nodiscard]] Action ForRecords(TimeMs now, const Examination& found);
  [[nodiscard]] Action ForNoRecords(TimeMs now);
  void AdaptInterval(const Examination& found);

  SenderTimes times_;
  std::function<double()> random_;
  Phase phase_ = Phase::kDisconnected;
  Mark position_;
  Mark in_flight_;  // the position after the message that is in flight
  std::uint64_t token_ = 0;
  std::uint64_t last_sequence_ = 0;
  TimeMs not_before_ = 0;                // of the next action
  TimeMs deadline_ = 0;                  // of the request in flight
  std::optional<TimeMs> last_sent_;      // by this sender; unset: its first message is still to be sent
  std::optional<TimeMs> last_records_;   // when there were records to send
  std::optional<TimeMs> last_empty_;     // when an examination found no record to send
  std::optional<TimeMs> pending_since_;  // the time since when there may be unsent records
  std::optional<TimeMs> adapted_at_;     // when the interval was changed
  TimeMs interval_ = 0;                  // between two examinations while there are records; 0: the shortest one
  std::uint32_t failures_ = 0;           // in a row
};

}  // namespace qx::relay
