// Decides where a sender continues in a store, from the newest message of the stream and from the state directory.
//
//   incarnation   a random number for one life of a store. It is the same as long as the numbers of its
//                 records continue. A store that was started over, or replaced by a backup, gets a new one.
//   mark          "the record before number `next` of this incarnation has this hash"
//
// Inode and times prove nothing, because a store can be started over in the same files. The hash of a record proves it.
//
//   mark of the newest message   mark of the state   => continue
//   proven                       any                 after the message: the stream has everything up to there
//   gone                         proven or gone,     after the message, with a gap: the next records were
//                                same incarnation    overwritten. The state may be later, if the servers lost messages
//   none, or of another          proven              with the oldest record that can be sent: the stream may have lost
//   incarnation, not proven                          messages, and receivers drop records that they have already
//   none, or contradicted and    gone                after the state, with a gap: the next records were overwritten
//   of another incarnation
//   gone                         none, or gone       after the message, with a gap: the next records were overwritten
//   anything else                anything else       in a new incarnation: after the last 32 sent records if the ring
//                                                    has them, otherwise with the oldest record that can be sent
//
// Everything here is pure. Throws std::bad_alloc. [any thread]
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reportfile/StoreFormat.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/send/StoreNumbers.h"

namespace qx::relay {

struct Mark {
  std::uint64_t incarnation = 0;
  std::uint64_t next = 0;
  std::uint64_t hash_before = 0;  // 0: not known
  std::uint32_t ring_slots = 0;   // 0: not known

  friend bool operator==(const Mark&, const Mark&) = default;
};

// The state of a store that the decision needs.
struct StoreView {
  report::IndexHeader header;
  std::uint32_t unsafe = 0;  // the number of the oldest records that a writer may be replacing

  // The part of `range` that can be sent: the records that a writer may be replacing are left out.
  [[nodiscard]] RecordRange Sendable(RecordRange range) const {
    range.oldest += unsafe < range.Count() ? unsafe : range.Count();
    return range;
  }
};

// The hashes of records that are in the ring.
class RecordHashes {
 public:
  RecordHashes() = default;
  virtual ~RecordHashes() = default;
  RecordHashes(const RecordHashes&) = delete;
  RecordHashes& operator=(const RecordHashes&) = delete;

  // The hashes of `count` records from this age on (0: the oldest in the ring). Fewer hashes if records cannot be read.
  [[nodiscard]] virtual std::vector<std::uint64_t> Hashes(std::uint64_t age, std::uint64_t count) = 0;
};

enum class Proof : std::uint8_t {
  kNone,          // there is no mark
  kProven,        // the ring has the record before `next`, with this hash
  kGone,          // the ring no longer has this record, and its count does not contradict the mark
  kContradicted,  // another store: its record or its count contradicts the mark
};

[[nodiscard]] Proof ProveMark(const std::optional<Mark>& mark, const StoreView& view, RecordHashes& hashes);

struct Place {
  std::uint64_t incarnation = 0;  // 0: a new one is needed
  std::uint64_t next = 0;
  std::uint64_t hash_before = 0;
  bool is_recognised = false;  // a new incarnation, but the ring has the last sent records

  friend bool operator==(const Place&, const Place&) = default;
};

// `overlap` are the hashes of the last records that were sent, oldest first, from the state directory.
[[nodiscard]] Place FindPlace(const StoreView& view, const std::optional<Mark>& message,
                              const std::optional<Mark>& state, const std::vector<std::uint64_t>& overlap,
                              RecordHashes& hashes);

// Whether the newest message shows another sender.
enum class Rival : std::uint8_t {
  kNone,
  kOtherMachine,  // the identity of another machine: a cloned host, or two hosts of one name
  kLaterSession,  // this identity, but a later session than ours: a second sender is running, or the state was restored
};

// A text for the operator: which other sender was found, and what to do. Empty for kNone.
[[nodiscard]] std::string TextOfRival(Rival rival, const std::string& host);

[[nodiscard]] Rival RivalOf(const MessageHead& newest, const HostIdentity& identity, std::uint64_t session);

}  // namespace qx::relay
