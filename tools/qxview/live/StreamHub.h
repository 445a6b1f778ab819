// Manages the open event streams, in the thread of the server.
//
// A page has one stream. The hub sends it the events of the sources. If there are no events, it sends a comment every
// kComment, so that proxies do not close the stream, and so that a page that is gone is noticed.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "tools/qxview/http/Exchange.h"
#include "tools/qxview/live/LiveEvent.h"

namespace qx::view {

// Threads: the server's.
class StreamHub {
 public:
  using Clock = std::chrono::steady_clock;
  using Leave = std::function<void(StreamId stream)>;  // the page is gone

  static constexpr std::chrono::seconds kComment{15};

  // Answers the exchange with a new stream. [owning thread]
  [[nodiscard]] StreamId Open(Exchange& exchange, Cursors cursors, Leave leave);
  // Writes the first line of the stream. From then on the page gets every event. [owning thread]
  void Begin(StreamId stream);
  // [owning thread]
  void Send(const std::vector<StreamId>& streams, const LiveEvent& event);
  [[nodiscard]] std::size_t Count() const { return entries_.size(); }
  // Sends the comments that are due, and removes the streams of pages that are gone. [owning thread]
  void Maintain(Clock::time_point now);

 private:
  struct Entry {
    std::shared_ptr<ReplyStream> stream;
    Cursors cursors;
    Leave leave;
    Clock::time_point last_sent;
  };

  std::map<StreamId, Entry> entries_;
  StreamId last_ = 0;
};

}  // namespace qx::view
