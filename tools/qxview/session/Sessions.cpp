#include "tools/qxview/session/Sessions.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace qx::view {

namespace {

constexpr std::size_t kTokenBytes = 32;
constexpr std::size_t kNonceBytes = 8;
constexpr std::string_view kVersion = "1.";

// The expiry of "1.EXPIRY.NONCE"; unset for anything else.
std::optional<std::int64_t> ExpiryOf(std::string_view head) {
  if (!head.starts_with(kVersion)) return std::nullopt;
  head.remove_prefix(kVersion.size());
  std::int64_t expiry = 0;
  const auto [end, error] = std::from_chars(head.data(), head.data() + head.size(), expiry);
  const bool is_number = error == std::errc() && end != head.data() + head.size() && *end == '.';
  return is_number ? std::optional(expiry) : std::nullopt;
}

// Removes the part before the separator, and the separator, from the text, and returns the part.
std::string_view TakePart(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

}  // namespace

std::string Sessions::NewToken(std::int64_t steady_s) {
  token_ = RandomText(kTokenBytes);
  token_end_s_ = steady_s + kTokenS;
  return token_;
}

bool Sessions::TakeToken(std::string_view token, std::int64_t steady_s) {
  const bool is_right = !token_.empty() && steady_s <= token_end_s_ && IsEqualSecret(token, token_);
  if (is_right) token_.clear();
  return is_right;
}

std::string Sessions::NewCookie(const std::string& name, std::int64_t wall_s) const {
  const std::string nonce = RandomText(kNonceBytes);
  if (nonce.empty()) return {};
  const std::string head = std::string(kVersion) + std::to_string(wall_s + kSessionS) + "." + nonce;
  const std::string mac = Mac(name, head);
  return mac.empty() ? std::string() : head + "." + mac;
}

bool Sessions::HasSession(std::string_view cookies, const std::string& name, std::int64_t wall_s) const {
  while (!cookies.empty()) {
    std::string_view value = TakePart(cookies, ';');
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    if (TakePart(value, '=') == name && IsValid(value, name, wall_s)) return true;
  }
  return false;
}

bool Sessions::IsValid(std::string_view value, const std::string& name, std::int64_t wall_s) const {
  const std::size_t dot = value.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view head = value.substr(0, dot);
  const std::string mac = Mac(name, head);
  if (mac.empty() || !IsEqualSecret(value.substr(dot + 1), mac)) return false;
  const std::optional<std::int64_t> expiry = ExpiryOf(head);
  return expiry.has_value() && wall_s < *expiry;
}

std::string Sessions::Mac(const std::string& name, std::string_view head) const {
  return MacOf(key_, name + "=" + std::string(head));
}

}  // namespace qx::view
