#include "tools/qxview/live/TraceFiles.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxctl/trace/TracePlace.h"
#include "tools/qxview/report/Documents.h"

namespace qx::view {

namespace {

using debug::TraceEntry;

constexpr std::size_t kBytesMax = std::size_t{2} << 20;
constexpr std::size_t kFilesMax = 64;

// A trace file that is read, with its next entry.
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
    if (item_.entry.stamp_ms.has_value()) item_.order_ms = *item_.entry.stamp_ms;
  }

  [[nodiscard]] bool HasEntry() const { return has_entry_; }
  [[nodiscard]] const TraceItem& Item() const { return item_; }
  [[nodiscard]] bool BelongsToLast() const {
    return has_entry_ && (item_.entry.kind == TraceEntry::Kind::kPiece || item_.entry.kind == TraceEntry::Kind::kRest);
  }

 private:
  debug::TraceFile file_;
  std::unique_ptr<debug::TraceUnroller> unroller_;
  TraceItem item_;
  bool has_entry_ = false;
};

using OpenTraces = std::vector<std::unique_ptr<OpenTrace>>;

// Opens all trace files. A file that cannot be read is left out; doctor reports it.
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
    if (trace->HasEntry() && (oldest == nullptr || trace->Item().order_ms < oldest->Item().order_ms))
      oldest = trace.get();
  }
  return oldest;
}

TracePlace PlaceOf(const TraceItem& item) {
  return {.order_ms = item.order_ms, .begin = item.entry.begin, .file = report::RecordHash(item.file)};
}

// The end of a pass: the entry of a place, or the first entry after a time.
struct TraceEnd {
  std::optional<TracePlace> place;
  std::optional<std::int64_t> order_ms;
};

// Keeps the newest of the entries that are added, within limits.
class NewestTraces {
 public:
  NewestTraces(std::size_t count_max, ChosenTraces& chosen) : count_max_(count_max), chosen_(chosen) {}

  void Add(const TraceItem& item) {
    std::deque<TraceItem>& items = chosen_.items;
    items.push_back(item);
    bytes_ += BytesOf(item);
    while (items.size() > count_max_ || (bytes_ > kBytesMax && items.size() > 1)) {
      bytes_ -= BytesOf(items.front());
      items.pop_front();
      ++chosen_.omitted;
    }
  }

 private:
  std::size_t count_max_;
  ChosenTraces& chosen_;
  std::size_t bytes_ = 0;
};

// Reads the entries before the end. `is_found`: whether the entry of the end's place is in the files.
ChosenTraces ReadUntil(const std::string& directory, const TraceWish& wish, std::size_t count_max, const TraceEnd& end,
                       bool& is_found) {
  ChosenTraces chosen;
  OpenTraces traces;
  chosen.error = OpenAll(directory, traces);
  TraceChoice choice(wish);
  NewestTraces newest(count_max, chosen);
  OpenTrace* trace = Oldest(traces);
  while (trace != nullptr) {
    const TraceItem& item = trace->Item();
    is_found = end.place.has_value() && PlaceOf(item) == *end.place;
    if (is_found) break;
    const bool is_late = end.order_ms.has_value() && item.order_ms > *end.order_ms;
    if (choice.Takes(item) && !is_late) newest.Add(item);
    trace->Advance();
    if (!trace->BelongsToLast()) trace = Oldest(traces);
  }
  if (chosen.omitted > 0) chosen.oldest = PlaceOf(chosen.items.front());
  return chosen;
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

std::string TextOf(const TracePlace& place) {
  char text[64];
  std::snprintf(text, sizeof text, "%" PRId64 ".%" PRIu64 ".%016" PRIx64, place.order_ms, place.begin, place.file);
  return text;
}

std::optional<TracePlace> TracePlaceOf(std::string_view text) {
  TracePlace place;
  const char* at = text.data();
  const char* const end = at + text.size();
  const auto take = [&](auto& number, int base, bool is_last) {
    const auto [next, error] = std::from_chars(at, end, number, base);
    const bool is_good = error == std::errc() && (is_last ? next == end : next != end && *next == '.');
    at = is_last ? next : next + 1;
    return is_good;
  };
  const bool is_good = take(place.order_ms, 10, false) && take(place.begin, 10, false) && take(place.file, 16, true);
  return is_good ? std::optional(place) : std::nullopt;
}

ChosenTraces ReadTraces(const std::string& directory, const TraceWish& wish, std::size_t count_max,
                        const std::optional<TracePlace>& before) {
  bool is_found = false;
  ChosenTraces chosen = ReadUntil(directory, wish, count_max, {.place = before, .order_ms = {}}, is_found);
  if (!before.has_value() || is_found) return chosen;
  return ReadUntil(directory, wish, count_max, {.place = {}, .order_ms = before->order_ms}, is_found);
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
