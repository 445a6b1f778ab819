#include "tools/qxview/live/LiveEvent.h"

#include <algorithm>
#include <memory>

namespace qx::view {

namespace {

constexpr std::string_view kNames[] = {"records", "overview", "findings", "traces"};

bool IsName(std::string_view text) { return std::find(std::begin(kNames), std::end(kNames), text) != std::end(kNames); }

}  // namespace

std::string TextOf(const Cursors& cursors) {
  std::string text;
  for (const auto& [name, cursor] : cursors) {
    text.append(text.empty() ? "" : ";").append(name).append("=").append(cursor);
  }
  return text;
}

Cursors CursorsOf(const std::string& text, const std::string& main_name) {
  Cursors cursors;
  if (text.find('=') == std::string::npos) {
    if (!text.empty()) cursors[main_name] = text;
    return cursors;
  }
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view part = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(part.size() + 1, rest.size()));
    const std::size_t sign = std::min(part.find('='), part.size());
    if (IsName(part.substr(0, sign)))
      cursors[std::string(part.substr(0, sign))] = part.substr(std::min(sign + 1, part.size()));
  }
  return cursors;
}

HttpReply::Text StreamText(const LiveEvent& event) {
  return std::make_shared<const std::string>("event: " + event.name + "\ndata: " + *event.data + "\n\n");
}

HttpReply::Text StreamPlace(const Cursors& cursors) {
  return std::make_shared<const std::string>("id: " + TextOf(cursors) + "\n");
}

// Names and cursors are texts of this program and have no quotes; the documents are JSON already.
HttpReply ChangesReply(const std::vector<LiveNews>& news) {
  Cursors cursors;
  for (const LiveNews& each : news) {
    if (!each.cursor.empty()) cursors[each.name] = each.cursor;
  }
  const std::string place = TextOf(cursors);
  std::string text = R"({"cursor":")" + place + R"(","events":[)";
  for (const LiveNews& each : news) {
    for (const LiveEvent& event : each.events) {
      text.append(text.ends_with('[') ? "" : ",");
      text.append(R"({"event":")" + event.name + R"(","id":")" + place + R"(","data":)" + *event.data + "}");
    }
  }
  return {.status = 200,
          .type = "application/json",
          .text = std::make_shared<const std::string>(text + "]}\n"),
          .headers = {{"Cache-Control", "no-store"}}};
}

}  // namespace qx::view
