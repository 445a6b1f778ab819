#include "tools/qxview/report/Cursor.h"

#include <charconv>
#include <cstdio>

namespace qx::view {

namespace {

constexpr std::uint64_t kCountModulus = std::uint64_t{1} << 32U;
constexpr int kHexBase = 16;

bool ReadNumber(std::string_view text, int base, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::string TextOf(const Cursor& cursor) {
  char text[48];
  std::snprintf(text, sizeof text, "%llu-%016llx", static_cast<unsigned long long>(cursor.next),
                static_cast<unsigned long long>(cursor.hash));
  return text;
}

std::optional<Cursor> CursorOf(std::string_view text) {
  const std::size_t dash = text.find('-');
  Cursor cursor;
  const bool is_cursor = dash != std::string_view::npos && ReadNumber(text.substr(0, dash), 10, cursor.next) &&
                         ReadNumber(text.substr(dash + 1), kHexBase, cursor.hash);
  return is_cursor ? std::optional(cursor) : std::nullopt;
}

RecordNumbers NumbersOf(const report::IndexHeader& header) {
  const bool has_wrapped = header.elementCount < header.highestIndex;
  const std::uint64_t end = header.elementCount + (has_wrapped ? kCountModulus : 0);
  return {.begin = end - header.highestIndex, .end = end};
}

}  // namespace qx::view
