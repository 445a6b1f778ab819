// The event streams that are open, in the thread of the server.
//
// A page has one stream. The hub sends it what the sources deliver, and a comment every kComment when nothing comes:
// that keeps proxies from closing it, and shows when the page is gone.
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
  // Writes the first line of the stream. The page gets whatever happens from then on. [owning thread]
  void Begin(StreamId stream);
  // [owning thread]
  void Send(const std::vector<StreamId>& streams, const LiveEvent& event);
  [[nodiscard]] std::size_t Count() const { return entries_.size(); }
  // Sends comments that are due, and forgets streams whose page is gone. [owning thread]
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
