#include "tools/qxctl/top/TopReports.h"

#include <algorithm>
#include <utility>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/store/NewestRecords.h"

namespace qx::ctl {

namespace {

using report::IndexHeader;
using report::ReportStatus;
using report::StoreState;

constexpr std::chrono::seconds kRateWindow{60};

// Does not search for processes that write: that would take longer than everything else together.
ReportStatus StatusOfReport(const std::string& base_path) {
  ReportStatus status;
  status.base_path = base_path;
  status.verdict = report::VerifyHeader(base_path);
  const report::StoreScan& scan = status.verdict.scan;
  status.records = scan.header.highestIndex;
  if (scan.index_bytes >= report::SlotOffset(0)) status.slots = scan.header.maxRecord;
  status.bytes = scan.index_bytes + scan.data_bytes;
  struct stat index = {};
  const int error = file::StatusOf(report::IndexFileName(base_path).c_str(), index);
  if (error == 0 && status.records > 0) status.newest = index.st_mtim;
  return status;
}

// How many records were written between two headers. The count wraps at 2^32. If it is lower than before by at most
// 2^31, the report was started over, and all its records are new.
//   10, then 12 => 2    4294967295, then 1 => 2    10, then 3 => 3
std::uint64_t RecordsBetween(const IndexHeader& before, const IndexHeader& now) {
  const std::uint32_t written = now.elementCount - before.elementCount;
  constexpr std::uint32_t kHalf = 0x80000000;
  return written < kHalf ? written : now.elementCount;
}

bool IsSameTime(const std::optional<timespec>& one, const std::optional<timespec>& other) {
  if (!one || !other) return one.has_value() == other.has_value();
  return one->tv_sec == other->tv_sec && one->tv_nsec == other->tv_nsec;
}

// The first field with a number, in the newest record that has one.
std::string FieldToShow(const std::vector<std::string>& records, const FieldRules& rules) {
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    for (const RecordField& field : ParseFields(TextOfRecord(*record).text, rules)) {
      if (field.IsNumber()) return field.name;
    }
  }
  return "";
}

// The text of the record without its stamp and the blanks after it.
std::string TextWithoutStamp(const std::string& record, const FieldRules& rules) {
  std::string_view text = TextOfRecord(record).text;
  if (const auto stamp = StampOfRecord(text, rules.time)) text.remove_prefix(std::min(stamp->bytes, text.size()));
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return std::string(text);
}

// The value as it is written in the record.
std::string WrittenValue(std::string_view text, const std::string& name, const FieldRules& rules) {
  for (const RecordField& field : ParseFields(text, rules)) {
    if (field.name == name) return std::string(field.value);
  }
  return "";
}

}  // namespace

TopReports::TopReports(std::string directory, std::string field, FieldRules rules)
    : directory_(std::move(directory)), field_(std::move(field)), rules_(std::move(rules)) {}

void TopReports::Poll(TopClock::time_point now) {
  found_ = report::FindReports(directory_);
  rows_.clear();
  std::map<std::string, Known> known;
  for (const std::string& name : found_.names) {
    Known& kept = known[name];
    if (const auto before = known_.find(name); before != known_.end()) kept = std::move(before->second);
    rows_.push_back(RowOf(name, kept, now));
  }
  known_ = std::move(known);
}

double TopReports::Rate() const {
  double rate = 0;
  for (const TopRow& row : rows_) rate += row.rate.value_or(0);
  return rate;
}

TopRow TopReports::RowOf(const std::string& name, Known& known, TopClock::time_point now) const {
  TopRow row = {.name = name, .status = StatusOfReport(directory_ + "/" + name), .rate = std::nullopt, .value = {}};
  const bool is_sound = row.status.verdict.state == StoreState::kSound;
  if (!is_sound) return row;
  const IndexHeader& header = row.status.verdict.scan.header;
  const bool has_changed = known.header != header || !IsSameTime(known.newest, row.status.newest);
  if (known.header) row.new_records = RecordsBetween(*known.header, header);
  known.header = header;
  known.newest = row.status.newest;
  const std::uint64_t before = known.samples.empty() ? 0 : known.samples.back().records;
  known.samples.push_back({now, before + row.new_records});
  while (known.samples.size() > 2 && now - known.samples[1].time >= kRateWindow) known.samples.pop_front();
  const std::chrono::duration<double> seconds = now - known.samples.front().time;
  if (seconds.count() > 0) {
    row.rate = static_cast<double>(known.samples.back().records - known.samples.front().records) / seconds.count();
  }
  if (has_changed) known.value = ValueOf(row.status.base_path);
  row.value = known.value;
  return row;
}

TopValue TopReports::ValueOf(const std::string& base_path) const {
  TopValue value;
  const std::vector<std::string> records = NewestRecords(base_path, kTopValues);
  if (records.empty()) return value;
  value.field = field_.empty() ? FieldToShow(records, rules_) : field_;
  if (value.field.empty()) value.text = TextWithoutStamp(records.back(), rules_);
  for (const std::string& record : records) {
    const std::string_view text = TextOfRecord(record).text;
    const std::optional<double> number = value.field.empty() ? std::nullopt : NumberOfField(text, value.field, rules_);
    if (!number) continue;
    value.numbers.push_back(*number);
    value.number = number;
    value.text = WrittenValue(text, value.field, rules_);
  }
  return value;
}

}  // namespace qx::ctl
