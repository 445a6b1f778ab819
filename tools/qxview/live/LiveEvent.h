// The events that the server sends to a page.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

using StreamId = std::uint64_t;

struct LiveEvent {
  std::string name;      // "records", "overview", "findings" or "traces"
  std::string cursor;    // where a page continues with events of this name
  HttpReply::Text data;  // a JSON document in one line
};

// Sends one event to many streams; called in the thread of the source. [any thread]
using Deliver = std::function<void(std::vector<StreamId> streams, LiveEvent event)>;

// The news of one source after a cursor, and the new cursor.
struct LiveNews {
  std::string name;
  std::string cursor;
  std::vector<LiveEvent> events;
};

// The cursors of a stream, by the names of its events. A client must not interpret their text.
//
//   "records=12-abc;overview=7f.3"   of a stream; a name that is missing has no cursor yet
//   "12-abc"                         of a document: the cursor of the view's main events
using Cursors = std::map<std::string, std::string, std::less<>>;
[[nodiscard]] std::string TextOf(const Cursors& cursors);
[[nodiscard]] Cursors CursorsOf(const std::string& text, const std::string& main_name);

// The text of an event in the stream; it follows the line with the cursors.
//   "event: records\ndata: {...}\n\n"
[[nodiscard]] HttpReply::Text StreamText(const LiveEvent& event);
//   "id: records=12-abc\n"
[[nodiscard]] HttpReply::Text StreamPlace(const Cursors& cursors);

// {"cursor":"...","events":[{"event":"records","id":"...","data":{...}}]}
[[nodiscard]] HttpReply ChangesReply(const std::vector<LiveNews>& news);

}  // namespace qx::view
