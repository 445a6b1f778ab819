// What a page is sent without asking again.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

using StreamId = std::uint64_t;

struct LiveEvent {
  std::string name;      // "records", "overview", ...
  std::string cursor;    // where a page continues after it
  HttpReply::Text data;  // a JSON document in one line
};

// Sends one event to many streams; called in the thread of the source. [any thread]
using Deliver = std::function<void(std::vector<StreamId> streams, LiveEvent event)>;

// As server-sent event.
//   "event: records\nid: 12-abc\ndata: {...}\n\n"
[[nodiscard]] HttpReply::Text StreamText(const LiveEvent& event);

// {"events":[{"event":"records","id":"12-abc","data":{...}}]}
[[nodiscard]] HttpReply ChangesReply(const std::vector<LiveEvent>& events);

}  // namespace qx::view
