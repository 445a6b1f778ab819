#include "tools/qxview/live/StreamHub.h"

#include <string>
#include <utility>

namespace qx::view {

namespace {

HttpReply::Text Comment() {
  static const auto kText = std::make_shared<const std::string>(":\n\n");
  return kText;
}

// The first text of a stream: the milliseconds after which a page that lost its stream connects again.
HttpReply::Text Beginning() {
  static const auto kText = std::make_shared<const std::string>("retry: 1000\n\n");
  return kText;
}

}  // namespace

StreamId StreamHub::Open(Exchange& exchange, Cursors cursors, Leave leave) {
  HttpReply head;
  head.type = "text/event-stream";
  head.headers = {{"Cache-Control", "no-store"}, {"X-Accel-Buffering", "no"}};
  entries_.emplace(++last_,
                   Entry{exchange.Stream(std::move(head)), std::move(cursors), std::move(leave), Clock::now()});
  return last_;
}

void StreamHub::Begin(StreamId stream) {
  if (const auto found = entries_.find(stream); found != entries_.end()) found->second.stream->Send(Beginning());
}

void StreamHub::Send(const std::vector<StreamId>& streams, const LiveEvent& event) {
  const HttpReply::Text text = StreamText(event);
  for (const StreamId id : streams) {
    const auto found = entries_.find(id);
    if (found == entries_.end()) continue;
    Entry& entry = found->second;
    entry.cursors[event.name] = event.cursor;
    entry.stream->Send(StreamPlace(entry.cursors));
    entry.stream->Send(text);
    entry.last_sent = Clock::now();
  }
}

void StreamHub::Maintain(Clock::time_point now) {
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    auto& [stream, cursors, leave, last_sent] = entry->second;
    if (now - last_sent >= kComment) {
      stream->Send(Comment());
      last_sent = now;
    }
    if (stream->IsOpen()) {
      ++entry;
      continue;
    }
    leave(entry->first);
    entry = entries_.erase(entry);
  }
}

}  // namespace qx::view
