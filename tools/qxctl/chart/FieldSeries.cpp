#include "tools/qxctl/chart/FieldSeries.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <utility>

#include "tools/qxctl/chart/RecordText.h"

namespace qx::ctl {

namespace {

// ASCII only: the limits of a word must not depend on the locale.
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsWordPart(char c) { return IsLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.'; }
bool MayFollowNumber(char c) { return IsLetter(c) || std::string_view("% \t,;)]}").find(c) != std::string_view::npos; }

std::string_view WithoutBlanks(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t");
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

std::optional<double> LeadingNumber(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  double number = 0;
  const char* const end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
  if (text.empty() || parsed.ec != std::errc() || !std::isfinite(number)) return std::nullopt;
  if (parsed.ptr != end && !MayFollowNumber(*parsed.ptr)) return std::nullopt;
  return number;
}

// The number in the text after a key: "=12", " : 12", " 12"
std::optional<double> NumberAfterKey(std::string_view text) {
  std::string_view value = WithoutBlanks(text);
  const bool has_blank = value.size() < text.size();
  if (value.starts_with('=') || value.starts_with(':')) {
    value = WithoutBlanks(value.substr(1));
  } else if (!has_blank) {
    return std::nullopt;
  }
  return LeadingNumber(value);
}

std::optional<std::size_t> ColumnNumber(const std::string& field) {
  std::size_t column = 0;
  const char* const end = field.data() + field.size();
  const std::from_chars_result parsed = std::from_chars(field.data(), end, column);
  if (field.empty() || parsed.ec != std::errc() || parsed.ptr != end || column == 0) return std::nullopt;
  return column;
}

}  // namespace

std::optional<double> NumberOfKey(std::string_view text, std::string_view key) {
  for (std::size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
    if (at > 0 && IsWordPart(text[at - 1])) continue;
    if (const auto number = NumberAfterKey(text.substr(at + key.size()))) return number;
  }
  return std::nullopt;
}

std::optional<double> NumberOfColumn(std::string_view text, std::string_view separator, std::size_t column) {
  const auto fields = FieldsOf(text, separator, std::numeric_limits<std::size_t>::max());
  if (column == 0 || column > fields.size()) return std::nullopt;
  return LeadingNumber(WithoutBlanks(fields[column - 1]));
}

FieldSeries::FieldSeries(std::string field, std::string separator)
    : field_(std::move(field)), separator_(std::move(separator)) {
  if (!separator_.empty()) column_ = ColumnNumber(field_);
}

void FieldSeries::Add(std::string_view record) {
  const std::string_view text = TextOfRecord(record).text;
  const auto number = column_ ? NumberOfColumn(text, separator_, *column_) : NumberOfKey(text, field_);
  if (number) {
    values_.push_back(*number);
  } else {
    ++skipped_;
  }
}

}  // namespace qx::ctl
