#include "tools/qxview/report/Columns.h"

#include <algorithm>

namespace qx::view {

void Merge(Column& column, std::int64_t place, double value) {
  Merge(column, Column{.first = place, .place = place, .min = value, .max = value, .last = value});
}

void Merge(Column& column, const Column& later) {
  column.first = std::min(column.first, later.first);
  column.min = std::min(column.min, later.min);
  column.max = std::max(column.max, later.max);
  column.last = later.last;
  column.place = later.place;
}

void Columns::Add(std::int64_t place, double value) {
  const std::int64_t index = IndexOf(place);
  const Column column = {.first = place, .place = place, .min = value, .max = value, .last = value};
  if (columns_.empty() || index > IndexOf(columns_.back().first)) {
    columns_.push_back(column);
    if (columns_.size() > kCountMax) Halve();
    return;
  }
  const auto at = std::lower_bound(columns_.begin(), columns_.end(), index,
                                   [this](const Column& each, std::int64_t i) { return IndexOf(each.first) < i; });
  if (IndexOf(at->first) == index) {
    Merge(*at, column);
    return;
  }
  columns_.insert(at, column);
  if (columns_.size() > kCountMax) Halve();
}

// Doubles the width of the columns until there are few enough. If the places are far apart, one doubling may not join
// any.
void Columns::Halve() {
  constexpr int kShiftMax = 62;
  while (columns_.size() > kCountMax && shift_ < kShiftMax) {
    ++shift_;
    std::size_t kept = 0;
    for (std::size_t i = 1; i < columns_.size(); ++i) {
      if (IndexOf(columns_[i].first) == IndexOf(columns_[kept].first)) {
        Merge(columns_[kept], columns_[i]);
      } else {
        columns_[++kept] = columns_[i];
      }
    }
    columns_.resize(kept + 1);
  }
}

void Columns::DropBefore(std::int64_t place) {
  const auto kept = std::find_if(columns_.begin(), columns_.end(), [&](const Column& each) {
    return each.place >= place || IndexOf(each.first) >= IndexOf(place);
  });
  columns_.erase(columns_.begin(), kept);
}

std::size_t ColumnOf(std::int64_t place, const PlaceRange& range, std::size_t count) {
  const auto length = static_cast<double>(range.to) - static_cast<double>(range.from) + 1;
  const double part = (static_cast<double>(place) - static_cast<double>(range.from)) / length;
  const auto column = static_cast<std::size_t>(std::max(0.0, part * static_cast<double>(count)));
  return std::min(column, count - 1);
}

}  // namespace qx::view
