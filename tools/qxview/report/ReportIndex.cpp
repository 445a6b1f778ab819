#include "tools/qxview/report/ReportIndex.h"

#include <algorithm>
#include <span>
#include <utility>

#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxctl/chart/RecordFields.h"

namespace qx::view {

namespace {

constexpr std::uint64_t kBlockRecords = 1024;
constexpr std::uint32_t kReadRecords = 4096;  // of one read
constexpr std::uint32_t kProbedRecords = 64;  // the newest ones show whether records have stamps
constexpr std::int64_t kFineness = 2;         // a drawn column is at least this many times as wide as a kept one

std::uint64_t HashOf(const PassedRecord& record) {
  return report::RecordHash(std::string(record.text) + (record.is_whole ? "\r\n" : ""));
}

std::uint64_t EndOf(const sdk::StoreSnapshot& snapshot) { return NumbersOf(snapshot.Header()).end; }

// The columns of the drawn chart, at equal distances; a column without values is left out in the end.
class Grid {
 public:
  Grid(const PlaceRange& range, std::size_t columns, std::size_t fields)
      : range_(range), rows_(columns), fields_(fields) {}

  void Add(std::size_t field, const Column& column) {
    ChartRow& row = rows_[ColumnOf(column.place, range_, rows_.size())];
    if (row.values.empty()) row.values.resize(fields_);
    std::optional<Column>& value = row.values[field];
    if (value.has_value()) {
      Merge(*value, column);
    } else {
      value = column;
    }
    row.place = std::max(row.place, column.place);
  }

  std::vector<ChartRow> Take() {
    std::erase_if(rows_, [](const ChartRow& row) { return row.values.empty(); });
    return std::move(rows_);
  }

 private:
  PlaceRange range_;
  std::vector<ChartRow> rows_;
  std::size_t fields_;
};

}  // namespace

// --- keeping up with the report

Error ReportIndex::Refresh(sdk::StoreSnapshot& snapshot, const std::vector<std::string>& fields) {
  time_.now_ms = ctl::NowMs();
  if (Error error = snapshot.Take(); error.Failed()) {
    Forget();
    return error;
  }
  bool continues = false;
  if (Error error = Continues(snapshot, continues); error.Failed()) return error;
  if (continues && !has_times_) {
    if (Error error = FindPlaceKind(snapshot); error.Failed()) return error;
    continues = !has_times_;
  }
  if (!continues) Forget();
  begin_ = EndOf(snapshot) - snapshot.Count();
  if (!is_known_) {
    if (Error error = FindPlaceKind(snapshot); error.Failed()) return error;
    cursor_ = {.next = begin_, .hash = 0};
    is_known_ = true;
  }
  if (Error error = AddFields(snapshot, fields); error.Failed()) return error;
  if (Error error = TakeNew(snapshot); error.Failed()) return error;
  return DropOld(snapshot);
}

void ReportIndex::Forget() {
  is_known_ = false;
  place_.reset();
  blocks_.clear();
  pauses_ = {};
  fields_.clear();
}

// Finds out whether the snapshot has the records of this index, perhaps with more after them.
Error ReportIndex::Continues(sdk::StoreSnapshot& snapshot, bool& continues) const {
  const std::uint64_t end = EndOf(snapshot);
  continues = is_known_ && cursor_.next <= end;
  const bool can_compare = continues && cursor_.hash != 0 && cursor_.next > end - snapshot.Count();
  if (!can_compare) return {};
  return Pass(snapshot, cursor_.next - 1, cursor_.next, {},
              [&](const PassedRecord& record) { continues = HashOf(record) == cursor_.hash; });
}

Error ReportIndex::FindPlaceKind(sdk::StoreSnapshot& snapshot) {
  const std::uint64_t end = EndOf(snapshot);
  has_times_ = true;
  bool has_stamp = false;
  Error error = Pass(snapshot, end - std::min(snapshot.Count(), kProbedRecords), end, {},
                     [&](const PassedRecord& record) { has_stamp = has_stamp || record.place.has_value(); });
  has_times_ = has_stamp;
  return error;
}

// Reads the values of fields that were not asked for before.
Error ReportIndex::AddFields(sdk::StoreSnapshot& snapshot, const std::vector<std::string>& fields) {
  ++uses_;
  std::vector<std::pair<std::string, Field*>> added;
  for (const std::string& name : fields) {
    const auto [at, is_new] = fields_.try_emplace(name);
    at->second.last_use = uses_;
    if (is_new) added.emplace_back(name, &at->second);
  }
  if (added.empty() || cursor_.next <= begin_) return {};
  const std::optional<std::int64_t> before = blocks_.empty() ? std::nullopt : blocks_.front().before;
  return Pass(snapshot, begin_, cursor_.next, before, [&](const PassedRecord& record) {
    if (!record.place.has_value()) return;
    for (const auto& [name, field] : added) {
      const auto value = ctl::NumberOfKey(record.text, name);
      if (value.has_value()) field->columns.Add(*record.place, *value);
    }
  });
}

Error ReportIndex::TakeNew(sdk::StoreSnapshot& snapshot) {
  const std::uint64_t end = EndOf(snapshot);
  std::uint64_t hash = cursor_.next == end ? cursor_.hash : 0;
  Error error = Pass(snapshot, std::max(cursor_.next, begin_), end, place_, [&](const PassedRecord& record) {
    Enter(record);
    if (record.number + 1 == end) hash = HashOf(record);
  });
  cursor_ = {.next = end, .hash = hash};
  return error;
}

void ReportIndex::Enter(const PassedRecord& record) {
  if (blocks_.empty() || record.number >= blocks_.back().first + kBlockRecords) {
    blocks_.push_back({.first = record.number, .before = place_});
  }
  if (!record.place.has_value()) return;
  place_ = record.place;
  Block& block = blocks_.back();
  block.min = std::min(block.min, *place_);
  block.max = std::max(block.max, *place_);
  if (has_times_) pauses_.Add(*place_);
  for (auto& [name, field] : fields_) {
    const auto value = ctl::NumberOfKey(record.text, name);
    if (value.has_value()) field.columns.Add(*place_, *value);
  }
}

// Drops what the ring has overwritten. Some records of the first block may be left.
Error ReportIndex::DropOld(sdk::StoreSnapshot& snapshot) {
  DropUnusedFields();
  while (blocks_.size() > 1 && blocks_[1].first <= begin_) blocks_.pop_front();
  if (blocks_.empty() || blocks_.front().first >= begin_) return {};
  const std::uint64_t end = blocks_.size() > 1 ? blocks_[1].first : cursor_.next;
  Block block = {.first = begin_, .before = blocks_.front().before};
  Error error = Pass(snapshot, begin_, end, block.before, [&](const PassedRecord& record) {
    if (!record.place.has_value()) return;
    block.min = std::min(block.min, *record.place);
    block.max = std::max(block.max, *record.place);
  });
  blocks_.front() = block;
  const std::optional<PlaceRange> all = All();
  for (auto& [name, field] : fields_) {
    if (all.has_value()) field.columns.DropBefore(all->from);
  }
  return error;
}

void ReportIndex::DropUnusedFields() {
  const auto is_older = [](const auto& left, const auto& right) {
    return left.second.last_use < right.second.last_use;
  };
  while (fields_.size() > kFieldsMax) fields_.erase(std::min_element(fields_.begin(), fields_.end(), is_older));
}

// --- passes over records

// Passes the records from number `from` up to, but not including `to`. `place`: the place of the record before them.
Error ReportIndex::Pass(sdk::StoreSnapshot& snapshot, std::uint64_t from, std::uint64_t to,
                        std::optional<std::int64_t> place, const Take& take) const {
  const std::uint64_t oldest = EndOf(snapshot) - snapshot.Count();
  PassedRecord record = {.number = std::max(from, oldest), .place = place, .text = {}};
  while (record.number < to) {
    const auto age = static_cast<std::uint32_t>(record.number - oldest);
    const auto count = static_cast<std::uint32_t>(std::min<std::uint64_t>(kReadRecords, to - record.number));
    std::span<const RecordView> views;
    if (Error error = snapshot.Read(age, count, views); error.Failed()) return error;
    if (views.empty()) return {};
    for (const RecordView& view : views) {
      record.text = view.text;
      record.is_whole = view.IsWhole();
      const std::int64_t number = static_cast<std::int64_t>(record.number);
      const auto stamp = has_times_ ? ctl::TimeOfRecord(view.text, time_) : std::optional(number);
      if (stamp.has_value()) record.place = stamp;
      if (view.state != RecordState::kOverwritten) take(record);
      ++record.number;
    }
  }
  return {};
}

// Passes the records of a range; reads only the blocks that can have some.
Error ReportIndex::PassBlocks(sdk::StoreSnapshot& snapshot, const PlaceRange& range, const Take& take) const {
  const PlaceRange every;
  const bool is_all = range.from == every.from && range.to == every.to;
  for (std::size_t i = 0; i < blocks_.size(); ++i) {
    const Block& block = blocks_[i];
    if (block.max < range.from || block.min > range.to) continue;
    const std::uint64_t end = i + 1 < blocks_.size() ? blocks_[i + 1].first : cursor_.next;
    Error error = Pass(snapshot, block.first, end, block.before, [&](const PassedRecord& record) {
      if (is_all || (record.place.has_value() && range.Has(*record.place))) take(record);
    });
    if (error.Failed()) return error;
  }
  return {};
}

// --- answers

std::optional<PlaceRange> ReportIndex::All() const {
  if (blocks_.empty() || !place_.has_value()) return std::nullopt;
  PlaceRange all = {.from = *place_, .to = *place_};
  for (const Block& block : blocks_) {
    all.from = std::min(all.from, block.min);
    all.to = std::max(all.to, block.max);
  }
  return all;
}

// Whether the kept columns are too coarse for the drawn ones. Nine tenths of a report or more are always drawn from the
// kept columns.
bool ReportIndex::NeedsRecords(const ChartRequest& request, const PlaceRange& range, const PlaceRange& all) const {
  const double drawn = static_cast<double>(range.to) - static_cast<double>(range.from) + 1;
  const double kept = static_cast<double>(all.to) - static_cast<double>(all.from) + 1;
  constexpr double kNearlyAll = 0.9;
  if (drawn > kNearlyAll * kept) return false;
  return std::any_of(request.fields.begin(), request.fields.end(), [&](const std::string& name) {
    const std::int64_t width = fields_.at(name).columns.Width();
    return width > 1 && static_cast<double>(width * kFineness) * static_cast<double>(request.columns) > drawn;
  });
}

Error ReportIndex::Draw(const ChartRequest& request, Chart& chart) {
  sdk::StoreSnapshot snapshot(base_path_);
  if (Error error = Refresh(snapshot, request.fields); error.Failed()) return error;
  chart.has_times = has_times_;
  chart.cursor = cursor_;
  chart.all = All();
  const PlaceRange all = chart.all.value_or(PlaceRange{.from = 0, .to = 0});
  chart.range = {.from = request.from.value_or(all.from), .to = request.to.value_or(all.to)};
  chart.range.to = std::max(chart.range.to, chart.range.from);
  Grid grid(chart.range, request.columns, request.fields.size());
  const bool needs_records = NeedsRecords(request, chart.range, all);
  Error error;
  if (needs_records) {
    error = PassBlocks(snapshot, chart.range, [&](const PassedRecord& record) {
      for (std::size_t i = 0; i < request.fields.size(); ++i) {
        const auto value = ctl::NumberOfKey(record.text, request.fields[i]);
        if (!value.has_value()) continue;
        grid.Add(i, {.first = *record.place, .place = *record.place, .min = *value, .max = *value, .last = *value});
      }
    });
  }
  for (std::size_t i = 0; !needs_records && i < request.fields.size(); ++i) {
    for (const Column& column : fields_.at(request.fields[i]).columns.All()) {
      if (chart.range.Has(column.place)) grid.Add(i, column);
    }
  }
  chart.rows = grid.Take();
  for (const Gap& gap : has_times_ ? pauses_.Gaps() : std::vector<Gap>()) {
    if (gap.to >= chart.range.from && gap.from <= chart.range.to && gap.from >= all.from) chart.gaps.push_back(gap);
  }
  return error;
}

Error ReportIndex::ReadRange(const ChartRequest& request, const Take& take, Cursor& cursor) {
  sdk::StoreSnapshot snapshot(base_path_);
  if (Error error = Refresh(snapshot, {}); error.Failed()) return error;
  cursor = cursor_;
  PlaceRange range;
  range.from = request.from.value_or(range.from);
  range.to = request.to.value_or(range.to);
  return PassBlocks(snapshot, range, take);
}

std::size_t ReportIndex::Bytes() const {
  std::size_t bytes = blocks_.size() * sizeof(Block) + sizeof *this;
  for (const auto& [name, field] : fields_) bytes += name.size() + field.columns.Bytes() + sizeof field;
  return bytes;
}

}  // namespace qx::view
