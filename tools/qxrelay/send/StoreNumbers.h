// Computes the 64-bit numbers of the records in a ring.
//
// The number of a record is the number of records that the store had before it. A store counts its records in 32 bits.
// From the messages that it sent, a sender knows a 64-bit number near the present count ("near" in the examples). The
// 64-bit count is the number nearest to "near" whose lower 32 bits are the count of the store.
//
//   header count 7, near 5                    => the next record is number 7
//   header count 3, near 2^32 - 2             => the next record is number 2^32 + 3
//   header count 90, near 100                 => the next record is number 90: the store has fewer than were sent
//
// Everything here is pure. [any thread]
#pragma once

#include <cstdint>
#include <optional>

#include "reportfile/StoreFormat.h"

namespace qx::relay {

// The records in the ring: from `oldest` up to, but not including `end`.
struct RecordRange {
  std::uint64_t oldest = 0;
  std::uint64_t end = 0;

  [[nodiscard]] std::uint64_t Count() const { return end - oldest; }
  [[nodiscard]] bool Contains(std::uint64_t number) const { return number >= oldest && number < end; }

  friend bool operator==(const RecordRange&, const RecordRange&) = default;
};

// The range of a ring, from a number near its end. The header must have records with HasPlausibleRing, or no records.
// Unset if no number within 2^31 of `near` fits: then `near` comes from another store.
[[nodiscard]] std::optional<RecordRange> RangeNear(const report::IndexHeader& header, std::uint64_t near);

// The range if no number is known: the count of the header, or 2^32 more if the count has wrapped since the oldest
// record of the ring.
[[nodiscard]] RecordRange FirstRange(const report::IndexHeader& header);

// The number of the first record of the current round of the data file.
//   3 slots, the next record is 8  => 6
[[nodiscard]] std::uint64_t RoundStart(const report::IndexHeader& header, const RecordRange& range);

}  // namespace qx::relay
