// Reduces the values of one field over time to the minimum, maximum and last value of each column.
//
// A column covers a fixed number of milliseconds or, without times, of records. When there are too many columns, each
// two neighbours become one column. So any number of values needs the same memory, and no peak is lost. Everything here
// is pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace qx::view {

// The values of a chart at one place.
struct Column {
  std::int64_t first = 0;  // the smallest place of a value in the column: milliseconds, or a record's number
  std::int64_t place = 0;  // of the last value
  double min = 0;
  double max = 0;
  double last = 0;
};

// A range of places; both ends are part of it.
struct PlaceRange {
  std::int64_t from = std::numeric_limits<std::int64_t>::min();
  std::int64_t to = std::numeric_limits<std::int64_t>::max();

  [[nodiscard]] bool Has(std::int64_t place) const { return place >= from && place <= to; }
};

// Threads: one thread.
class Columns {
 public:
  static constexpr std::size_t kCountMax = 8192;

  // Adds a value; most come in the order of places. [owning thread]
  void Add(std::int64_t place, double value);
  // Removes the columns whose values are all before `place`. [owning thread]
  void DropBefore(std::int64_t place);

  // The milliseconds, or the records, that a column covers. [owning thread]
  [[nodiscard]] std::int64_t Width() const { return std::int64_t{1} << shift_; }
  [[nodiscard]] std::span<const Column> All() const { return columns_; }
  [[nodiscard]] std::size_t Bytes() const { return columns_.capacity() * sizeof(Column); }

 private:
  [[nodiscard]] std::int64_t IndexOf(std::int64_t place) const { return place >> shift_; }
  void Halve();

  std::vector<Column> columns_;  // in the order of places
  int shift_ = 0;
};

// Adds the value of a later record to a column.
void Merge(Column& column, std::int64_t place, double value);
// Adds a later column to a column.
void Merge(Column& column, const Column& later);

// The column in which a place is, if the range has `count` columns.
[[nodiscard]] std::size_t ColumnOf(std::int64_t place, const PlaceRange& range, std::size_t count);

}  // namespace qx::view
