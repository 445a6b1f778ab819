#include "sdk/Cursor.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>

namespace qx::sdk {

namespace {

constexpr std::string_view kMark = "qx1";
constexpr std::size_t kHashDigits = 16;

// Returns the text up to the next space, and removes both from the front of `text`.
std::string_view TakeWord(std::string_view& text) {
  const std::size_t end = std::min(text.find(' '), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return word;
}

std::optional<std::uint64_t> NumberOf(std::string_view word, int base) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, base);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  return number;
}

}  // namespace

std::string TextOfCursor(const report::ReportPosition& position) {
  std::string text =
      std::string(kMark) + " " + std::to_string(position.next) + " " + std::to_string(position.delivered);
  for (const std::uint64_t hash : position.overlap) {
    char digits[kHashDigits + 2];
    std::snprintf(digits, sizeof digits, " %016llx", static_cast<unsigned long long>(hash));
    text += digits;
  }
  return text;
}

std::optional<report::ReportPosition> CursorOfText(std::string_view text) {
  if (TakeWord(text) != kMark || text.ends_with(' ')) return std::nullopt;
  const std::optional<std::uint64_t> next = NumberOf(TakeWord(text), 10);
  const std::optional<std::uint64_t> delivered = NumberOf(TakeWord(text), 10);
  if (!next.has_value() || *next > std::numeric_limits<std::uint32_t>::max() || !delivered.has_value()) {
    return std::nullopt;
  }
  report::ReportPosition position;
  position.next = static_cast<std::uint32_t>(*next);
  position.delivered = *delivered;
  while (!text.empty()) {
    const std::string_view word = TakeWord(text);
    const std::optional<std::uint64_t> hash = NumberOf(word, 16);
    if (word.size() != kHashDigits || !hash.has_value()) return std::nullopt;
    position.overlap.push_back(*hash);
  }
  const bool is_possible =
      position.overlap.size() <= report::kOverlapRecords && position.overlap.size() <= position.delivered;
  return is_possible ? std::optional(position) : std::nullopt;
}

}  // namespace qx::sdk
