// Finds the slots of a part that are written, but that the header does not count yet.
//
// RecordWriter writes the texts of a part, then its slots, then the header. Until the header is written, the first slot
// of the part leads to writePosition, and each next slot to the end of the record before it. The next writer counts
// these records, a reader leaves them out, and a check does not report them as damage. All three use the function of
// this file.
#pragma once

#include <cstdint>
#include <optional>

#include "reportfile/StoreFormat.h"

namespace qx::report {

struct UncountedPart {
  std::uint32_t slots = 0;    // the number of slots that lead to writePosition or to the end of the line before
  std::uint32_t records = 0;  // the number of these slots, from the first on, that certainly lead to records
  std::int64_t end = 0;       // after the last of these records
};

// `slot_at(slot)` returns the offset in a slot, `end_of(slot, offset)` the end of the record there; both return
// std::optional, unset if nothing is there. `is_marker_at(offset)` says whether the end marker's bytes are there.
//
// The end marker is after the last record of the part. An old slot may lead to the marker: then the marker looks like
// one more record of the part, and so may the old text after it. Therefore the records end at the first end marker. If
// a record has the text of the marker, this record and the ones after it in the part are left out. This is allowed,
// because their writer was not informed that they are stored.
//   "a", marker, old text     slots to "a", to the marker, to the old text  => 3 slots, 1 record
//   "a", "===>", "b", marker  slots to "a", to "===>", to "b"               => 3 slots, 1 record
// [any thread]
template <typename SlotAt, typename EndOf, typename IsMarkerAt>
[[nodiscard]] UncountedPart FindUncountedPart(const IndexHeader& header, SlotAt slot_at, EndOf end_of,
                                              IsMarkerAt is_marker_at) {
  UncountedPart part = {.end = header.writePosition};
  const std::uint32_t first_slot = SlotForNewRecord(header);
  const std::uint32_t records_max = RecordsInPart(header);
  std::int64_t at = header.writePosition;
  bool is_over = false;
  while (part.slots < records_max && slot_at(first_slot + part.slots) == at) {
    const std::optional<std::int64_t> end = end_of(first_slot + part.slots, at);
    is_over = is_over || is_marker_at(at);
    ++part.slots;
    if (!end.has_value()) break;
    at = *end;
    if (is_over) continue;
    part.end = at;
    ++part.records;
  }
  return part;
}

}  // namespace qx::report
