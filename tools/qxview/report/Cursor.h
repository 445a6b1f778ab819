// A place in a report: directly before the record with the number `next`. `hash` is the hash of the record before this
// place.
//
// The number of a record is the number of records that the report had before it. A report that was started over counts
// from 0 again, in the same files; the hash shows whether a number still means the same record. After 2^32 records the
// count of the files begins again; readers treat this as a new report.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "reportfile/StoreFormat.h"

namespace qx::view {

struct Cursor {
  std::uint64_t next = 0;
  std::uint64_t hash = 0;  // 0: there is no record before it

  friend bool operator==(const Cursor&, const Cursor&) = default;
};

// "1204-e5ad9b1904074ddb"
[[nodiscard]] std::string TextOf(const Cursor& cursor);
// The cursor of such a text; unset for any other text.
[[nodiscard]] std::optional<Cursor> CursorOf(std::string_view text);

// The numbers of the records in a ring: from `begin` up to, but not including `end`.
struct RecordNumbers {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// `header` must have a plausible ring.
[[nodiscard]] RecordNumbers NumbersOf(const report::IndexHeader& header);

}  // namespace qx::view
