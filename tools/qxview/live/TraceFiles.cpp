#include "tools/qxview/live/TraceFiles.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxctl/trace/TracePlace.h"
#include "tools/qxview/report/Documents.h"

namespace qx::view {

namespace {

using debug::TraceEntry;

constexpr std::size_t kBytesMax = std::size_t{2} << 20;
constexpr std::size_t kFilesMax = 64;

// A file with its next entry.
class OpenTrace {
 public:
  explicit OpenTrace(std::string name) { item_.file = std::move(name); }

  [[nodiscard]] bool Open(const std::string& path) {
    if (file_.Open(path) != 0) return false;
    unroller_ = std::make_unique<debug::TraceUnroller>(file_);
    Advance();
    return true;
  }

  void Advance() {
    has_entry_ = unroller_->Next(item_.entry);
    if (item_.entry.stamp_ms.has_value()) order_ms_ = *item_.entry.stamp_ms;
  }

  [[nodiscard]] bool HasEntry() const { return has_entry_; }
  [[nodiscard]] const TraceItem& Item() const { return item_; }
  [[nodiscard]] std::int64_t OrderMs() const { return order_ms_; }
  [[nodiscard]] bool BelongsToLast() const {
    return has_entry_ && (item_.entry.kind == TraceEntry::Kind::kPiece || item_.entry.kind == TraceEntry::Kind::kRest);
  }

 private:
  debug::TraceFile file_;
  std::unique_ptr<debug::TraceUnroller> unroller_;
  TraceItem item_;
  bool has_entry_ = false;
  std::int64_t order_ms_ = 0;
};

using OpenTraces = std::vector<std::unique_ptr<OpenTrace>>;

// A file that cannot be read is left out: doctor reports it.
int OpenAll(const std::string& directory, OpenTraces& traces) {
  std::error_code error;
  if (!std::filesystem::exists(directory, error) && !error) return ENOENT;
  std::vector<std::string> names;
  const ctl::Status status = ctl::FindTraceFiles(directory, names);
  if (!status.IsOk()) return status.Code() == ctl::ExitCode::kIo ? EIO : ENOENT;
  const std::string prefix = directory + "/";
  for (const std::string& name : names) {
    auto trace = std::make_unique<OpenTrace>(name);
    const bool is_open = traces.size() < kFilesMax && trace->Open(prefix + name);
    if (is_open) traces.push_back(std::move(trace));
  }
  if (!traces.empty()) return 0;
  return names.empty() ? ENOENT : EIO;
}

OpenTrace* Oldest(const OpenTraces& traces) {
  OpenTrace* oldest = nullptr;
  for (const auto& trace : traces) {
    if (trace->HasEntry() && (oldest == nullptr || trace->OrderMs() < oldest->OrderMs())) oldest = trace.get();
  }
  return oldest;
}

std::optional<std::int64_t> TimeOf(const TraceEntry& entry) {
  if (!entry.stamp_ms.has_value()) return std::nullopt;
  return ctl::ToPoint(*entry.stamp_ms, {});
}

}  // namespace

bool IsSame(const TraceItem& left, const TraceItem& right) {
  return left.file == right.file && left.entry.begin == right.entry.begin && left.entry.stamp == right.entry.stamp &&
         left.entry.lines == right.entry.lines;
}

std::size_t BytesOf(const TraceItem& item) {
  std::size_t bytes = sizeof item + item.entry.header.size() + item.entry.stamp.size();
  for (const std::string& line : item.entry.lines) bytes += sizeof(std::string) + line.size();
  return bytes;
}

bool TraceChoice::Passes(const TraceItem& item) const {
  const TraceEntry& entry = item.entry;
  if (ctl::SeverityOf(entry) < wish_.severity) return false;
  const auto time = TimeOf(entry);
  if (wish_.from.has_value() && (!time.has_value() || *time < *wish_.from)) return false;
  if (wish_.to.has_value() && (!time.has_value() || *time > *wish_.to)) return false;
  return wish_.filter.empty() || Shows(wish_.filter, entry.module) ||
         std::any_of(entry.lines.begin(), entry.lines.end(),
                     [&](const std::string& line) { return Shows(wish_.filter, line); });
}

bool TraceChoice::Takes(const TraceItem& item) {
  const auto [last, is_first] = last_.try_emplace(item.file, true);
  const bool decides = is_first || ctl::HasHeader(item.entry) || item.entry.kind == TraceEntry::Kind::kGap;
  if (decides) last->second = Passes(item);
  return last->second;
}

ChosenTraces ReadTraces(const std::string& directory, const TraceWish& wish, std::size_t count_max) {
  ChosenTraces chosen;
  OpenTraces traces;
  chosen.error = OpenAll(directory, traces);
  TraceChoice choice(wish);
  std::size_t bytes = 0;
  OpenTrace* trace = Oldest(traces);
  while (trace != nullptr) {
    if (choice.Takes(trace->Item())) {
      chosen.items.push_back(trace->Item());
      bytes += BytesOf(trace->Item());
    }
    while (chosen.items.size() > count_max || (bytes > kBytesMax && chosen.items.size() > 1)) {
      bytes -= BytesOf(chosen.items.front());
      chosen.items.pop_front();
      ++chosen.omitted;
    }
    trace->Advance();
    if (!trace->BelongsToLast()) trace = Oldest(traces);
  }
  return chosen;
}

ctl::Json ToJson(const TraceItem& item) {
  constexpr std::string_view kSeverities[] = {"", "warning", "error"};
  ctl::Json entry = ctl::EntryToJson(item.entry, item.file);
  entry["severity"] = kSeverities[static_cast<std::size_t>(ctl::SeverityOf(item.entry))];
  const auto time = TimeOf(item.entry);
  entry["timeMs"] = time.has_value() ? ctl::Json(*time) : ctl::Json();
  return entry;
}

}  // namespace qx::view
