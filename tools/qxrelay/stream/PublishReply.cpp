#include "tools/qxrelay/stream/PublishReply.h"

#include <nlohmann/json.hpp>

namespace qx::relay {

namespace {

constexpr std::int64_t kWrongLastSequence = 10071;

StreamReply Refusal(std::uint64_t token, const nlohmann::json& error) {
  const std::int64_t code = error.is_object() ? error.value("err_code", std::int64_t{0}) : 0;
  const std::string text = error.is_object() ? error.value("description", std::string()) : std::string();
  return {.token = token,
          .kind = code == kWrongLastSequence ? ReplyKind::kWrongLast : ReplyKind::kRefused,
          .sequence = 0,
          .payload = {},
          .text = text.empty() ? "the server refuses the message" : text};
}

}  // namespace

StreamReply ReplyToPublish(std::uint64_t token, std::string_view answer) {
  const nlohmann::json document = nlohmann::json::parse(answer, nullptr, false);
  try {
    if (document.is_object() && document.contains("error")) return Refusal(token, document["error"]);
    if (document.is_object() && document.contains("seq")) {
      const auto sequence = document["seq"].get<std::uint64_t>();
      if (sequence > 0) {
        return {.token = token, .kind = ReplyKind::kStored, .sequence = sequence, .payload = {}, .text = {}};
      }
    }
  } catch (const nlohmann::json::exception&) {
    // A member has a wrong type: the answer counts as a refusal.
  }
  return {.token = token,
          .kind = ReplyKind::kRefused,
          .sequence = 0,
          .payload = {},
          .text = "the answer to a message is not that of a stream"};
}

}  // namespace qx::relay
