#include "tools/qxctl/trial/CallDiff.h"

#include <algorithm>

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kCharsAround = 40;

std::string TextOf(const std::optional<std::string>& reply) {
  return reply.has_value() ? std::to_string(reply->size()) + " bytes" : "none";
}

// The text around `at`, with "..." where it is cut.
std::string Window(const std::string& text, std::size_t at) {
  const std::size_t from = at > kCharsAround ? at - kCharsAround : 0;
  const std::size_t to = std::min(text.size(), at + kCharsAround);
  const std::string window = Visible(text.substr(from, to - from));
  return (from > 0 ? "..." : "") + window + (to < text.size() ? "..." : "");
}

}  // namespace

std::string WithoutAttributes(const std::string& reply, const std::vector<std::string>& names) {
  std::string text = reply;
  for (const std::string& name : names) {
    const std::string head = " " + name + "=\"";
    for (std::size_t at = text.find(head); at != std::string::npos; at = text.find(head, at + head.size())) {
      const std::size_t value = at + head.size();
      const std::size_t end = text.find('"', value);
      if (end == std::string::npos) break;
      text.replace(value, end - value, "*");
    }
  }
  return text;
}

std::string ReplyDiff(const std::optional<std::string>& recorded, const std::optional<std::string>& now) {
  if (recorded == now) return "";
  if (!recorded.has_value() || !now.has_value()) {
    return "reply: recorded " + TextOf(recorded) + ", now " + TextOf(now);
  }
  const auto differs = std::mismatch(recorded->begin(), recorded->end(), now->begin(), now->end()).first;
  const auto at = static_cast<std::size_t>(differs - recorded->begin());
  const auto line = std::count(recorded->begin(), differs, '\n') + 1;
  const std::size_t line_start = recorded->rfind('\n', at == 0 ? 0 : at - 1);
  const std::size_t column = line == 1 ? at + 1 : at - line_start;
  return "reply differs at byte " + std::to_string(at) + ", line " + std::to_string(line) + " column " +
         std::to_string(column) + "\n  recorded " + Window(*recorded, at) + "\n  now      " + Window(*now, at);
}

}  // namespace qx::ctl
