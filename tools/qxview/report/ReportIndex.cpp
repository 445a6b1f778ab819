#include "tools/qxview/report/ReportIndex.h"

#include <algorithm>
#include <atomic>
#include <span>
#include <utility>

#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxctl/chart/RecordFields.h"

namespace qx::view {

namespace {

constexpr std::uint64_t kBlockRecords = 1024;
constexpr std::uint32_t kReadRecords = 4096;  // of one read
constexpr std::uint32_t kProbedRecords = 64;  // the newest records, which show whether records have stamps
constexpr std::int64_t kFineness = 2;         // a drawn column is at least this many times as wide as a kept one

std::uint64_t HashOf(const PassedRecord& record) {
  return report::RecordHash(std::string(record.text) + (record.is_whole ? "\r\n" : ""));
}

std::uint64_t EndOf(const sdk::StoreSnapshot& snapshot) { return NumbersOf(snapshot.Header()).end; }

template <typename NamedField>
void AddValue(const PassedRecord& record, NamedField& field) {
  const auto value = ctl::NumberOfKey(record.text, field.first);
  if (record.place.has_value() && value.has_value()) field.second.columns.Add(*record.place, *value);
}

// Adds a value to the columns of a drawn chart. All these columns are equally wide.
void AddTo(Drawing& drawing, std::size_t field, const Column& column) {
  std::vector<ChartRow>& rows = drawing.chart.rows;
  ChartRow& row = rows[ColumnOf(column.place, drawing.chart.range, rows.size())];
  if (row.values.empty()) row.values.resize(drawing.request.fields.size());
  std::optional<Column>& value = row.values[field];
  if (value.has_value()) {
    Merge(*value, column);
  } else {
    value = column;
  }
  row.place = std::max(row.place, column.place);
}

std::uint64_t NewRun() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

}  // namespace

ReportIndex::ReportIndex(std::string base_path, std::uint64_t step_records)
    : base_path_(std::move(base_path)), step_records_(step_records), run_(NewRun()) {}

// --- reading new records

Error ReportIndex::TakeSnapshot() {
  time_.now_ms = ctl::NowMs();
  if (snapshot_ == nullptr) snapshot_ = std::make_unique<sdk::StoreSnapshot>(base_path_);
  if (Error error = snapshot_->Take(); error.Failed()) {
    Forget();
    return error;
  }
  bool continues = false;
  if (Error error = Continues(continues); error.Failed()) return error;
  if (continues && !has_times_) {
    if (Error error = FindPlaceKind(); error.Failed()) return error;
    continues = !has_times_;
  }
  if (!continues) Forget();
  begin_ = EndOf(*snapshot_) - snapshot_->Count();
  if (is_known_) return {};
  if (Error error = FindPlaceKind(); error.Failed()) return error;
  cursor_ = {.next = begin_, .hash = 0};
  is_known_ = true;
  return {};
}

void ReportIndex::Forget() {
  run_ = NewRun();
  is_known_ = false;
  place_.reset();
  blocks_.clear();
  pauses_ = {};
  fields_.clear();
}

// Finds out whether the snapshot continues the records of this index.
Error ReportIndex::Continues(bool& continues) const {
  const std::uint64_t end = EndOf(*snapshot_);
  continues = is_known_ && cursor_.next <= end;
  const bool can_compare = continues && cursor_.hash != 0 && cursor_.next > end - snapshot_->Count();
  if (!can_compare) return {};
  return Pass(cursor_.next - 1, cursor_.next, {},
              [&](const PassedRecord& record) { continues = HashOf(record) == cursor_.hash; });
}

Error ReportIndex::FindPlaceKind() {
  const std::uint64_t end = EndOf(*snapshot_);
  has_times_ = true;
  bool has_stamp = false;
  Error error = Pass(end - std::min(snapshot_->Count(), kProbedRecords), end, {},
                     [&](const PassedRecord& record) { has_stamp = has_stamp || record.place.has_value(); });
  has_times_ = has_stamp;
  return error;
}

// Adds, within the budget, the records that the work needs. If the report was started over, the index begins again.
Error ReportIndex::CatchUp(IndexWork& work, const std::vector<std::string>& fields) {
  if (work.run == 0 || snapshot_ == nullptr) {
    if (Error error = TakeSnapshot(); error.Failed()) return error;
  }
  if (work.run != run_) {
    if (work.begins == kBeginsMax) {
      return {.code = ErrorCode::kDamaged, .text = "the report is started over again and again"};
    }
    work = {.run = run_, .begins = work.begins + 1, .end = EndOf(*snapshot_)};
  }
  if (work.is_current) return {};
  const std::vector<FieldRef> used = UseFields(fields);
  if (Error error = ReadOldValues(used); error.Failed()) return error;
  if (Error error = TakeNew(work.end); error.Failed()) return error;
  work.is_current = cursor_.next >= work.end && std::all_of(used.begin(), used.end(), [this](FieldRef field) {
                      return NextOf(field->second) >= cursor_.next;
                    });
  return work.is_current ? DropOld() : Error();
}

std::vector<ReportIndex::FieldRef> ReportIndex::UseFields(const std::vector<std::string>& names) {
  ++uses_;
  std::vector<FieldRef> used;
  for (const std::string& name : names) {
    const auto [at, is_new] = fields_.try_emplace(name);
    Field& field = at->second;
    field.last_use = uses_;
    if (is_new && !blocks_.empty()) field.before = blocks_.front().before;
    used.push_back(&*at);
  }
  return used;
}

// Reads the values of records before the cursor, for fields that were not requested before. Each pass is for the fields
// that lack most values.
Error ReportIndex::ReadOldValues(const std::vector<FieldRef>& fields) {
  while (budget_ > 0) {
    std::uint64_t from = cursor_.next;
    for (const FieldRef field : fields) from = std::min(from, NextOf(field->second));
    std::uint64_t to = std::min(cursor_.next, from + budget_);
    std::vector<FieldRef> late;
    for (const FieldRef field : fields) {
      const std::uint64_t next = NextOf(field->second);
      if (next == from) late.push_back(field);
      if (next > from) to = std::min(to, next);
    }
    if (from >= to) return {};
    std::optional<std::int64_t> place = late.front()->second.before;
    Error error = Pass(from, to, place, [&](const PassedRecord& record) {
      place = record.place;
      for (const FieldRef field : late) AddValue(record, *field);
    });
    if (error.Failed()) return error;
    for (const FieldRef field : late) {
      field->second.next = to;
      field->second.before = place;
    }
    budget_ -= to - from;
  }
  return {};
}

// Adds records up to, but not including the number `end`. A value is added for the fields that have the values before
// it.
Error ReportIndex::TakeNew(std::uint64_t end) {
  const std::uint64_t from = std::max(cursor_.next, begin_);
  const std::uint64_t to = std::min(std::max(from, end), from + budget_);
  std::vector<FieldRef> fields;
  for (auto& field : fields_) {
    if (NextOf(field.second) >= from) fields.push_back(&field);
  }
  std::uint64_t hash = cursor_.next == to ? cursor_.hash : 0;
  Error error = Pass(from, to, place_, [&](const PassedRecord& record) {
    Enter(record, fields);
    if (record.number + 1 == to) hash = HashOf(record);
  });
  for (const FieldRef field : fields) {
    field->second.next = to;
    field->second.before = place_;
  }
  cursor_ = {.next = to, .hash = hash};
  budget_ -= to - from;
  return error;
}

void ReportIndex::Enter(const PassedRecord& record, const std::vector<FieldRef>& fields) {
  if (blocks_.empty() || record.number >= blocks_.back().first + kBlockRecords) {
    blocks_.push_back({.first = record.number, .before = place_});
  }
  if (!record.place.has_value()) return;
  place_ = record.place;
  Block& block = blocks_.back();
  block.min = std::min(block.min, *place_);
  block.max = std::max(block.max, *place_);
  if (has_times_) pauses_.Add(*place_);
  for (const FieldRef field : fields) AddValue(record, *field);
}

// Drops the records that the ring has overwritten. Some of them may stay in the first block.
Error ReportIndex::DropOld() {
  DropUnusedFields();
  while (blocks_.size() > 1 && blocks_[1].first <= begin_) blocks_.pop_front();
  if (blocks_.empty() || blocks_.front().first >= begin_) return {};
  const std::uint64_t end = blocks_.size() > 1 ? blocks_[1].first : cursor_.next;
  Block block = {.first = begin_, .before = blocks_.front().before};
  Error error = Pass(begin_, end, block.before, [&](const PassedRecord& record) {
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

// Passes the records from number `from` up to, but not including `to`. `place`: the place of the record before `from`.
Error ReportIndex::Pass(std::uint64_t from, std::uint64_t to, std::optional<std::int64_t> place,
                        const Take& take) const {
  const std::uint64_t oldest = EndOf(*snapshot_) - snapshot_->Count();
  PassedRecord record = {.number = std::max(from, oldest), .place = place, .text = {}};
  while (record.number < to) {
    const auto age = static_cast<std::uint32_t>(record.number - oldest);
    const auto count = static_cast<std::uint32_t>(std::min<std::uint64_t>(kReadRecords, to - record.number));
    std::span<const RecordView> views;
    if (Error error = snapshot_->Read(age, count, views); error.Failed()) return error;
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

// Passes, within the budget, the records of a range; only the blocks that can have such records are read.
Error ReportIndex::PassBlocks(IndexWork& work, const PlaceRange& range, const Take& take) {
  const PlaceRange every;
  const bool is_all = range.from == every.from && range.to == every.to;
  for (std::size_t i = 0; i < blocks_.size(); ++i) {
    const Block& block = blocks_[i];
    const std::uint64_t from = std::max(block.first, work.next);
    const std::uint64_t to = std::min(i + 1 < blocks_.size() ? blocks_[i + 1].first : cursor_.next, work.end);
    if (from >= to || block.max < range.from || block.min > range.to) continue;
    if (budget_ == 0) return {};
    Error error = Pass(from, to, block.before, [&](const PassedRecord& record) {
      if (is_all || (record.place.has_value() && range.Has(*record.place))) take(record);
    });
    if (error.Failed()) return error;
    work.next = to;
    budget_ -= std::min(budget_, to - from);
  }
  work.is_done = true;
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

// Whether the kept columns are too coarse for the drawn ones. If the range is more than nine tenths of the report, the
// kept columns are always used.
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

void ReportIndex::Begin(Drawing& drawing) const {
  const ChartRequest& request = drawing.request;
  const std::optional<PlaceRange> kept = All();
  const PlaceRange all = kept.value_or(PlaceRange{.from = 0, .to = 0});
  Chart& chart = drawing.chart;
  chart = {.has_times = has_times_, .cursor = cursor_, .range = {}, .all = kept, .rows = {}, .gaps = {}};
  chart.range = {.from = request.from.value_or(all.from), .to = request.to.value_or(all.to)};
  chart.range.to = std::max(chart.range.to, chart.range.from);
  chart.rows.resize(request.columns);
  drawing.needs_records = NeedsRecords(request, chart.range, all);
  for (const Gap& gap : has_times_ ? pauses_.Gaps() : std::vector<Gap>()) {
    if (gap.to >= chart.range.from && gap.from <= chart.range.to && gap.from >= all.from) chart.gaps.push_back(gap);
  }
}

void ReportIndex::DrawColumns(Drawing& drawing) const {
  for (std::size_t i = 0; i < drawing.request.fields.size(); ++i) {
    for (const Column& column : fields_.at(drawing.request.fields[i]).columns.All()) {
      if (drawing.chart.range.Has(column.place)) AddTo(drawing, i, column);
    }
  }
  drawing.work.is_done = true;
}

Error ReportIndex::DrawRecords(Drawing& drawing) {
  return PassBlocks(drawing.work, drawing.chart.range, [&](const PassedRecord& record) {
    for (std::size_t i = 0; i < drawing.request.fields.size(); ++i) {
      const auto value = ctl::NumberOfKey(record.text, drawing.request.fields[i]);
      if (!value.has_value()) continue;
      AddTo(drawing, i, {.first = *record.place, .place = *record.place, .min = *value, .max = *value, .last = *value});
    }
  });
}

Error ReportIndex::Step(Drawing& drawing, bool is_last_of_turn) {
  IndexWork& work = drawing.work;
  budget_ = step_records_;
  Error error = CatchUp(work, drawing.request.fields);
  if (error.Failed() || !work.is_current) return EndStep(work, is_last_of_turn, error);
  if (!work.is_passing) {
    work.end = cursor_.next;
    Begin(drawing);
  }
  work.is_passing = true;
  if (drawing.needs_records) {
    error = DrawRecords(drawing);
  } else {
    DrawColumns(drawing);
  }
  if (work.is_done) std::erase_if(drawing.chart.rows, [](const ChartRow& row) { return row.values.empty(); });
  return EndStep(work, is_last_of_turn, error);
}

Error ReportIndex::Step(RangeReading& reading, bool is_last_of_turn) {
  IndexWork& work = reading.work;
  budget_ = step_records_;
  const Error error = CatchUp(work, {});
  if (error.Failed() || !work.is_current) return EndStep(work, is_last_of_turn, error);
  if (!work.is_passing) {
    work.end = cursor_.next;
    reading.begin();
    reading.cursor = cursor_;
  }
  work.is_passing = true;
  return EndStep(work, is_last_of_turn, PassBlocks(work, reading.range, reading.take));
}

Error ReportIndex::EndStep(const IndexWork& work, bool is_last_of_turn, Error error) {
  if (is_last_of_turn || work.is_done || error.Failed()) snapshot_.reset();
  return error;
}

std::size_t ReportIndex::Bytes() const {
  std::size_t bytes = blocks_.size() * sizeof(Block) + sizeof *this;
  for (const auto& [name, field] : fields_) bytes += name.size() + field.columns.Bytes() + sizeof field;
  return bytes;
}

}  // namespace qx::view
