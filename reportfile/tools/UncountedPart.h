// The slots of a part that are written while the header does not count them yet.
//
// RecordWriter writes the texts of a part, then its slots, then the header. Until the header is written, the first
// slots of the part lead to writePosition and from there from record to record. The next writer counts these records, a
// reader leaves them out, and a check does not take them for damage: all of them find them here.
#pragma once

#include <cstdint>
#include <optional>

#include "reportfile/StoreFormat.h"

namespace qx::report {

struct UncountedPart {
  std::uint32_t slots = 0;    // lead to where the record before them ends
  std::uint32_t records = 0;  // of them, from the first on, those that have a whole record: all, or all but the last
  std::int64_t end = 0;       // after the last whole record
};

// `slot_at(slot)` returns the offset in a slot, `end_of(slot, offset)` the end of the record there; both return
// std::optional, unset if nothing is there. [any thread]
template <typename SlotAt, typename EndOf>
[[nodiscard]] UncountedPart FindUncountedPart(const IndexHeader& header, SlotAt slot_at, EndOf end_of) {
  UncountedPart part = {.end = header.writePosition};
  const std::uint32_t first_slot = SlotForNewRecord(header);
  const std::uint32_t records_max = RecordsInPart(header);
  while (part.slots < records_max && slot_at(first_slot + part.slots) == part.end) {
    const std::optional<std::int64_t> end = end_of(first_slot + part.slots, part.end);
    ++part.slots;
    if (!end.has_value()) break;
    part.end = *end;
    ++part.records;
  }
  return part;
}

}  // namespace qx::report
