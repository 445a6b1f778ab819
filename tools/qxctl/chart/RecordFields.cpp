#include "tools/qxctl/chart/RecordFields.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kNumberBytesMax = 400;  // with its unit
constexpr std::size_t kFieldsMax = 1000;      // of a record without a separator

// These functions know only ASCII: the end of a word must not depend on the locale.
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsBeyondAscii(char c) { return static_cast<unsigned char>(c) >= 0x80; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsWordPart(char c) { return IsLetter(c) || IsDigit(c) || c == '_' || c == '-' || c == '.'; }
bool IsOfUnit(char c) { return IsLetter(c) || IsBeyondAscii(c) || c == '%' || c == '/'; }
bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }
bool BeginsName(char c) { return IsLetter(c) || IsBeyondAscii(c) || c == '_'; }
bool IsNamePart(char c) {
  return !IsControl(c) && std::string_view(" =:,;\"'()[]{}<>").find(c) == std::string_view::npos;
}
bool EndsValue(char c) { return IsControl(c) || c == ' ' || c == ',' || c == ';'; }

std::size_t CountFront(std::string_view text, bool (*is_part)(char)) {
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_part) - text.begin());
}

std::string_view WithoutBlanks(std::string_view text) { return text.substr(CountFront(text, IsBlank)); }

struct Number {
  double value = 0;
  std::size_t bytes = 0;  // without the unit
};

// The number that the whole text is, with or without a unit; unset for any other text.
//   "12%" => 12    "+2e3kB" => 2000    "3" => 3    "0x1F", "5m30s", "10.0.0.1", "nan" => unset
std::optional<Number> ParseNumber(std::string_view text) {
  const std::size_t sign = text.starts_with('+') ? 1 : 0;
  const char* const begin = text.data() + sign;
  const char* const end = text.data() + text.size();
  Number number;
  const std::from_chars_result parsed = std::from_chars(begin, end, number.value);
  if (parsed.ec != std::errc() || !std::isfinite(number.value)) return std::nullopt;
  number.bytes = static_cast<std::size_t>(parsed.ptr - text.data());
  const bool is_whole = CountFront(text.substr(number.bytes), IsOfUnit) == text.size() - number.bytes;
  return is_whole ? std::optional(number) : std::nullopt;
}

// A closing bracket whose opening bracket is not in the value does not belong to it.
//   "12%)" => "12%"    "a(b)" => "a(b)"    "(a))" => "(a)"
std::string_view WithoutClosingBrackets(std::string_view value) {
  constexpr std::string_view kOpening = "([{";
  constexpr std::string_view kClosing = ")]}";
  std::array<std::ptrdiff_t, kClosing.size()> excess = {};
  for (std::size_t i = 0; i < kClosing.size(); ++i) {
    excess[i] =
        std::count(value.begin(), value.end(), kClosing[i]) - std::count(value.begin(), value.end(), kOpening[i]);
  }
  while (!value.empty()) {
    const std::size_t bracket = kClosing.find(value.back());
    if (bracket == std::string_view::npos || excess[bracket] <= 0) break;
    --excess[bracket];
    value.remove_suffix(1);
  }
  return value;
}

// The value at the beginning of the text: up to a blank, a comma or a semicolon.
std::string_view BareValue(std::string_view text) {
  const auto end = std::find_if(text.begin(), text.end(), EndsValue);
  return WithoutClosingBrackets(text.substr(0, static_cast<std::size_t>(end - text.begin())));
}

// The value at the beginning of the text if it is a number; empty otherwise. The limit of its length keeps a scan of
// hostile text linear.
std::string_view BareNumber(std::string_view text) {
  const std::string_view value = BareValue(text.substr(0, kNumberBytesMax));
  return value.size() < kNumberBytesMax && ParseNumber(value) ? value : std::string_view();
}

// The bytes between the quote at the beginning of the text and the next quote that has no backslash before it; unset if
// there is no such quote.
std::optional<std::string_view> QuotedValue(std::string_view text) {
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      return text.substr(1, i - 1);
    }
  }
  return std::nullopt;
}

RecordField FieldOf(std::string name, std::string_view value) {
  RecordField field = {std::move(name), value};
  const std::optional<Number> number = ParseNumber(value);
  if (!number) return field;
  field.number = number->value;
  const std::string_view digits = value.substr(0, number->bytes);
  field.type = digits.find_first_of(".eE") == std::string_view::npos ? FieldType::kInteger : FieldType::kNumber;
  return field;
}

// Finds names with values, from the left to the right.
class FieldScan {
 public:
  explicit FieldScan(std::string_view text) : rest_(text) {}

  std::vector<RecordField> Run() {
    while (!rest_.empty() && fields_.size() < kFieldsMax) {
      if (BeginsName(rest_[0])) {
        TakeName();
      } else {
        Skip(std::max<std::size_t>(SkippedBytes(), 1));
      }
    }
    return std::move(fields_);
  }

 private:
  void Skip(std::size_t bytes) { rest_.remove_prefix(std::min(bytes, rest_.size())); }

  // The number of bytes at the beginning that are not a name: a word such as 10.0.0.1, or a text in quotes.
  [[nodiscard]] std::size_t SkippedBytes() {
    const std::optional<std::string_view> quoted = Quoted();
    return quoted ? quoted->size() + 2 : CountFront(rest_, IsNamePart);
  }

  // The text in quotes at the beginning of the rest. Once a quote without its end was found, no other quote is searched
  // for.
  std::optional<std::string_view> Quoted() {
    if (!rest_.starts_with('"') || !may_have_quotes_) return std::nullopt;
    const std::optional<std::string_view> quoted = QuotedValue(rest_);
    may_have_quotes_ = quoted.has_value();
    return quoted;
  }

  void TakeName() {
    const std::string_view name = rest_.substr(0, CountFront(rest_, IsNamePart));
    Skip(name.size());
    const std::size_t blanks = CountFront(rest_, IsBlank);
    const std::string_view after = rest_.substr(blanks);
    if (after.starts_with('=')) {
      Skip(blanks + 1);
      TakeValue(name, blanks > 0);
    } else if (after.starts_with(':')) {
      TakeNumber(name, blanks + 1);
    } else if (blanks > 0) {
      TakeNumber(name, blanks);
    }
  }

  // The value after "=". If there are blanks after the "=" but not before it, only a number is a value.
  //   "a=b c" => b    "a = b" => b    "a= 5" => 5    "a= b=c" => nothing
  void TakeValue(std::string_view name, bool has_blanks_before) {
    const std::size_t blanks = CountFront(rest_, IsBlank);
    if (blanks > 0 && !has_blanks_before) {
      if (!TakeNumber(name, 0)) Add(name, rest_.substr(0, 0));
      return;
    }
    Skip(blanks);
    const std::optional<std::string_view> quoted = Quoted();
    const std::string_view value = quoted ? *quoted : BareValue(rest_);
    if (quoted) {
      AddText(name, value);
    } else {
      Add(name, value);
    }
    Skip(value.size() + (quoted ? 2 : 0));
  }

  // Takes the number that follows after `bytes` bytes and any blanks. False, and nothing is taken, if there is no
  // number.
  bool TakeNumber(std::string_view name, std::size_t bytes) {
    const std::string_view value = BareNumber(WithoutBlanks(rest_.substr(bytes)));
    if (value.empty()) return false;
    Add(name, value);
    Skip(static_cast<std::size_t>(value.data() + value.size() - rest_.data()));
    return true;
  }

  [[nodiscard]] bool Has(std::string_view name) const {
    return std::any_of(fields_.begin(), fields_.end(), [&](const RecordField& field) { return field.name == name; });
  }
  void Add(std::string_view name, std::string_view value) {
    if (!Has(name)) fields_.push_back(FieldOf(std::string(name), value));
  }
  void AddText(std::string_view name, std::string_view value) {
    if (!Has(name)) fields_.push_back({std::string(name), value});
  }

  std::string_view rest_;
  bool may_have_quotes_ = true;
  std::vector<RecordField> fields_;
};

std::vector<RecordField> ColumnsOf(std::string_view text, std::string_view separator) {
  std::vector<RecordField> columns;
  for (const std::string_view column : FieldsOf(text, separator, std::numeric_limits<std::size_t>::max())) {
    const std::string_view value = BareNumber(WithoutBlanks(column));
    std::string name = std::to_string(columns.size() + 1);
    columns.push_back(value.empty() ? RecordField{std::move(name), column} : FieldOf(std::move(name), value));
  }
  return columns;
}

std::optional<double> LeadingNumber(std::string_view text) {
  const std::optional<Number> number = ParseNumber(BareNumber(text));
  return number ? std::optional(number->value) : std::nullopt;
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

std::string_view NameOf(FieldType type) {
  switch (type) {
    case FieldType::kInteger:
      return "integer";
    case FieldType::kNumber:
      return "number";
    case FieldType::kText:
      return "text";
  }
  return "";
}

std::vector<RecordField> ParseFields(std::string_view text, const FieldRules& rules) {
  if (!rules.separator.empty()) return ColumnsOf(text, rules.separator);
  const std::optional<RecordStamp> stamp = StampOfRecord(text, rules.time);
  return FieldScan(text.substr(stamp ? std::min(stamp->bytes, text.size()) : 0)).Run();
}

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

std::optional<double> NumberOfField(std::string_view text, const std::string& name, const FieldRules& rules) {
  if (rules.separator.empty()) return NumberOfKey(text, name);
  const std::optional<std::size_t> column = ColumnNumber(name);
  return column ? NumberOfColumn(text, rules.separator, *column) : NumberOfKey(text, name);
}

Json ValueToJson(const RecordField& field) {
  if (field.type == FieldType::kText) return Json(field.value);
  std::int64_t integer = 0;
  const std::string_view digits = field.value.starts_with('+') ? field.value.substr(1) : field.value;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), integer);
  const bool fits = field.type == FieldType::kInteger && parsed.ec == std::errc();
  return fits ? Json(integer) : Json(field.number);
}

void AddFields(Json& object, std::string_view text, const FieldRules& rules) {
  if (const auto stamp = StampOfRecord(text, rules.time)) object["timeMs"] = stamp->time_ms;
  Json fields;
  for (const RecordField& field : ParseFields(text, rules)) {
    if (!IsUtf8(field.name)) continue;
    if (field.IsNumber()) {
      fields[field.name] = ValueToJson(field);
    } else {
      SetText(fields, field.name, std::string(field.value));
    }
  }
  if (!fields.IsEmpty()) object["fields"] = fields;
}

}  // namespace qx::ctl
