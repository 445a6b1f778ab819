#include "tools/qxview/live/LiveEvent.h"

#include <memory>

namespace qx::view {

HttpReply::Text StreamText(const LiveEvent& event) {
  return std::make_shared<const std::string>("event: " + event.name + "\nid: " + event.cursor +
                                             "\ndata: " + *event.data + "\n\n");
}

// Names and cursors are our own texts without quotes; the documents are JSON already.
HttpReply ChangesReply(const std::vector<LiveEvent>& events) {
  std::string text = "{\"events\":[";
  for (const LiveEvent& event : events) {
    text.append(text.ends_with('[') ? "" : ",");
    text.append(R"({"event":")" + event.name + R"(","id":")" + event.cursor + R"(","data":)" + *event.data + "}");
  }
  return {.status = 200,
          .type = "application/json",
          .text = std::make_shared<const std::string>(text + "]}\n"),
          .headers = {{"Cache-Control", "no-store"}}};
}

}  // namespace qx::view
