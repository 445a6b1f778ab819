#include "tools/qxview/live/LiveReports.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxview/report/Documents.h"

namespace qx::view {

namespace {

LiveEvent EventOf(const std::string& report, const RecordPage& page, const std::string& filter) {
  return {.name = "records",
          .cursor = TextOf(page.cursor),
          .data = std::make_shared<const std::string>(ctl::JsonLine(RecordsDocument(report, page, filter)))};
}

// Whether the records are news for a page that shows only records with the filter.
bool IsNews(const RecordPage& page, const std::string& filter) {
  if (page.error != 0) return false;
  if (page.is_reset || page.lost > 0 || page.omitted > 0) return true;
  return std::any_of(page.records.begin(), page.records.end(),
                     [&](const NumberedRecord& record) { return Shows(filter, ctl::TextOfRecord(record.text).text); });
}

// Removes the records at and after a place: they come with the next event of the report.
void CutAt(const Cursor& end, RecordPage& page) {
  if (page.cursor.next <= end.next) return;
  std::erase_if(page.records, [&](const NumberedRecord& record) { return record.number >= end.next; });
  page.cursor = end;
}

}  // namespace

void LiveReports::Subscribe(StreamId stream, const ReportWatch& watch) {
  const auto [at, is_new] = followers_.try_emplace(watch.base_path, Follower{.report = watch.report,
                                                                             .tail = RecordTail(watch.base_path),
                                                                             .cursor = std::nullopt,
                                                                             .time_ms = std::nullopt,
                                                                             .streams = {}});
  Follower& follower = at->second;
  Poll(follower);
  follower.streams[watch.filter].push_back(stream);
  if (!watch.after.has_value() || !follower.cursor.has_value()) return;
  RecordPage page = RecordTail(watch.base_path).Read(watch.after, kRecordsMax);
  CutAt(*follower.cursor, page);
  if (IsNews(page, watch.filter)) deliver_({stream}, EventOf(watch.report, page, watch.filter));
}

void LiveReports::Unsubscribe(StreamId stream) {
  for (auto follower = followers_.begin(); follower != followers_.end();) {
    auto& streams = follower->second.streams;
    for (auto& [filter, ids] : streams) std::erase(ids, stream);
    std::erase_if(streams, [](const auto& each) { return each.second.empty(); });
    follower = streams.empty() ? followers_.erase(follower) : std::next(follower);
  }
}

LiveNews LiveReports::Changes(const ReportWatch& watch) {
  const RecordPage page = RecordTail(watch.base_path).Read(watch.after, watch.after.has_value() ? kRecordsMax : 0);
  LiveNews news = {.name = "records", .cursor = TextOf(page.cursor), .events = {}};
  if (page.error != 0) news.cursor = watch.after.has_value() ? TextOf(*watch.after) : "";
  if (watch.after.has_value() && IsNews(page, watch.filter)) {
    news.events.push_back(EventOf(watch.report, page, watch.filter));
  }
  return news;
}

// The first poll of a follower finds the end of the report and sends nothing: there is no stream yet, and Subscribe
// sends the records after the stream's own cursor. A report may be missing for a moment, while its agent starts it
// over; its streams stay.
void LiveReports::Poll(Follower& follower) {
  if (!follower.tail.HasMoved()) return;
  const bool is_first = !follower.cursor.has_value();
  RecordPage page = follower.tail.Read(follower.cursor, is_first && follower.streams.empty() ? 1 : kRecordsMax);
  if (page.error != 0) return;
  follower.cursor = page.cursor;
  if (!page.is_reset) page.time_before = follower.time_ms;
  follower.time_ms = TimeAfter(page);
  for (const auto& [filter, streams] : follower.streams) {
    if (IsNews(page, filter)) deliver_(streams, EventOf(follower.report, page, filter));
  }
}

std::optional<std::chrono::milliseconds> LiveReports::Tick() {
  for (auto& [base_path, follower] : followers_) Poll(follower);
  return followers_.empty() ? std::nullopt : std::optional(kPoll);
}

}  // namespace qx::view
