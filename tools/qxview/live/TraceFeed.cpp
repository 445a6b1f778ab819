#include "tools/qxview/live/TraceFeed.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

#include "base/File.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/trace/TracePlace.h"
#include "tools/qxview/session/Key.h"

namespace qx::view {

namespace {

constexpr std::size_t kRunBytes = 4;
constexpr std::size_t kFilesMax = 64;

bool MayFollow(const std::string& path) {
  struct stat status = {};
  if (file::StatusOf(path.c_str(), status) != 0) return false;
  if (status.st_size <= TraceFeed::kFollowedMax) return true;
  debug::TraceFile file;
  return file.Open(path) == 0 && debug::IsTraceRing(file);
}

LiveEvent EventOf(const TracePage& page) {
  return {.name = "traces",
          .cursor = page.cursor,
          .data = std::make_shared<const std::string>(ctl::JsonLine(TracesDocument(page)))};
}

// Keeps only the newest entries of a page.
void Limit(TracePage& page) {
  if (page.items.size() <= TraceFeed::kEntriesMax) return;
  const std::size_t dropped = page.items.size() - TraceFeed::kEntriesMax;
  page.items.erase(page.items.begin(), page.items.begin() + static_cast<std::ptrdiff_t>(dropped));
  page.omitted += dropped;
}

void TakeRead(ChosenTraces& read, TracePage& page) {
  page.omitted = read.omitted;
  page.oldest = read.oldest;
  page.items.assign(std::make_move_iterator(read.items.begin()), std::make_move_iterator(read.items.end()));
}

}  // namespace

ctl::Json TracesDocument(const TracePage& page) {
  ctl::Json entries = ctl::Json::Array();
  for (const TraceItem& item : page.items) entries.Append(ToJson(item));
  ctl::Json document = {
      {"cursor", page.cursor}, {"reset", page.is_reset}, {"omitted", page.omitted}, {"entries", std::move(entries)}};
  if (page.oldest.has_value()) document["before"] = TextOf(*page.oldest);
  return document;
}

TraceFeed::TraceFeed(std::string directory, Deliver deliver)
    : directory_(std::move(directory)), deliver_(std::move(deliver)), run_(RandomText(kRunBytes)) {}

std::string TraceFeed::CursorText() const { return run_ + "." + std::to_string(next_); }

// The number of the entry after the cursor. Unset for a cursor of another run, or if the entries after it are not kept
// any more.
std::optional<std::uint64_t> TraceFeed::NumberOf(const std::string& cursor) const {
  if (!cursor.starts_with(run_ + ".")) return std::nullopt;
  std::uint64_t number = 0;
  const char* const begin = cursor.data() + run_.size() + 1;
  const auto [end, error] = std::from_chars(begin, cursor.data() + cursor.size(), number);
  if (error != std::errc() || number > next_ || number < next_ - kept_.size()) return std::nullopt;
  return number;
}

// --- the files

void TraceFeed::Poll(bool searches) {
  used_ = Clock::now();
  if (searches || !is_active_ || used_ - searched_ >= kSearch) Search();
  std::vector<TraceItem> items;
  for (auto& [file, follower] : followers_) {
    if (follower == nullptr) continue;
    const debug::TracePoll poll = follower->Poll();
    Take(file, poll, items);
    if (poll.error != 0) follower.reset();
  }
  std::stable_sort(items.begin(), items.end(), [](const TraceItem& left, const TraceItem& right) {
    return left.entry.stamp_ms.value_or(INT64_MAX) < right.entry.stamp_ms.value_or(INT64_MAX);
  });
  Send(items);
  Keep(std::move(items));
}

// The first search follows each file from its end on, because no page waits for older entries. A later search follows a
// new file from its beginning.
void TraceFeed::Search() {
  searched_ = Clock::now();
  std::vector<std::string> names;
  if (!ctl::FindTraceFiles(directory_, names).IsOk()) names.clear();
  for (const std::string& name : names) {
    if (followers_.contains(name) || followers_.size() >= kFilesMax) continue;
    const std::string path = directory_ + "/" + name;
    auto follower = std::make_unique<debug::TraceFollower>(path, !is_active_);
    const bool is_followed = MayFollow(path) && follower->Open() == 0;
    if (!is_followed) follower.reset();
    followers_[name] = std::move(follower);
  }
  is_active_ = true;
}

void TraceFeed::Take(const std::string& file, const debug::TracePoll& poll, std::vector<TraceItem>& items) {
  for (const debug::TraceFollowEvent& event : poll.events) {
    if (event.kind == debug::TraceFollowEvent::Kind::kEntry) items.push_back({.file = file, .entry = event.entry});
  }
}

void TraceFeed::Keep(std::vector<TraceItem> items) {
  for (TraceItem& item : items) {
    kept_bytes_ += BytesOf(item);
    kept_.push_back(std::move(item));
  }
  while (kept_.size() > kKeptMax || (kept_bytes_ > kKeptBytesMax && kept_.size() > 1)) {
    kept_bytes_ -= BytesOf(kept_.front());
    kept_.pop_front();
  }
}

void TraceFeed::Send(const std::vector<TraceItem>& items) {
  next_ += items.size();
  for (auto& [key, group] : groups_) {
    TracePage page = {.cursor = CursorText(), .is_reset = false, .omitted = 0, .oldest = {}, .items = {}};
    for (const TraceItem& item : items) {
      if (group.choice.Takes(item)) page.items.push_back(item);
    }
    if (page.items.empty()) continue;
    Limit(page);
    deliver_(group.streams, EventOf(page));
  }
}

// --- requests

// An entry that is written while the files are read may come from the files, from a follower, or from both; it is shown
// only once. For this to hold for new files, too, they are followed before any file is read.
bool TraceFeed::Read(const TraceWish& wish, std::size_t count_max, TracePage& page) {
  Poll(true);
  const std::uint64_t before = next_;
  ChosenTraces read = ReadTraces(directory_, wish, count_max);
  if (read.error != 0 && read.error != ENOENT) return false;
  Poll(true);
  TraceChoice choice(wish);
  const std::size_t new_count = std::min<std::size_t>(next_ - before, kept_.size());
  for (auto item = kept_.end() - static_cast<std::ptrdiff_t>(new_count); item != kept_.end(); ++item) {
    const bool is_read =
        std::any_of(read.items.begin(), read.items.end(), [&](const TraceItem& each) { return IsSame(each, *item); });
    if (choice.Takes(*item) && !is_read) read.items.push_back(*item);
  }
  page.cursor = CursorText();
  page.is_reset = true;
  TakeRead(read, page);
  return true;
}

bool TraceFeed::ReadBefore(const TracePlace& place, const TraceWish& wish, std::size_t count_max, TracePage& page) {
  ChosenTraces read = ReadTraces(directory_, wish, count_max, place);
  if (read.error != 0 && read.error != ENOENT) return false;
  page.cursor = CursorText();
  TakeRead(read, page);
  return true;
}

TracePage TraceFeed::ReadAfter(const TraceWatch& watch) {
  Poll();
  TracePage page = {.cursor = CursorText(), .is_reset = false, .omitted = 0, .oldest = {}, .items = {}};
  if (watch.after.empty()) return page;
  const std::optional<std::uint64_t> number = NumberOf(watch.after);
  if (!number.has_value()) {
    if (!Read(watch.wish, kEntriesMax, page)) page.is_reset = true;  // nothing can be read any more
    return page;
  }
  TraceChoice choice(watch.wish);
  const std::size_t count = static_cast<std::size_t>(next_ - *number);
  for (auto item = kept_.end() - static_cast<std::ptrdiff_t>(count); item != kept_.end(); ++item) {
    if (choice.Takes(*item)) page.items.push_back(*item);
  }
  Limit(page);
  return page;
}

LiveNews TraceFeed::Changes(const TraceWatch& watch) {
  const TracePage page = ReadAfter(watch);
  LiveNews news = {.name = "traces", .cursor = page.cursor, .events = {}};
  if (page.is_reset || !page.items.empty()) news.events.push_back(EventOf(page));
  return news;
}

// --- followers

void TraceFeed::Subscribe(StreamId stream, const TraceWatch& watch) {
  for (LiveEvent& event : Changes(watch).events) deliver_({stream}, std::move(event));
  const std::string key = std::to_string(static_cast<int>(watch.wish.severity)) + watch.wish.filter;
  const auto group = groups_.try_emplace(key, Group{.choice = TraceChoice(watch.wish), .streams = {}});
  group.first->second.streams.push_back(stream);
}

void TraceFeed::Unsubscribe(StreamId stream) {
  for (auto& [key, group] : groups_) std::erase(group.streams, stream);
  std::erase_if(groups_, [](const auto& each) { return each.second.streams.empty(); });
}

std::optional<std::chrono::milliseconds> TraceFeed::Tick() {
  if (!is_active_) return std::nullopt;
  const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - used_);
  if (!groups_.empty() && since < kPoll) return kPoll - since;
  if (!groups_.empty()) Poll();
  if (Clock::now() - used_ <= kUnused) return groups_.empty() ? kUnused : kPoll;
  followers_.clear();
  next_ += 1;  // a client with an old cursor may have missed entries
  kept_.clear();
  kept_bytes_ = 0;
  is_active_ = false;
  return std::nullopt;
}

}  // namespace qx::view
