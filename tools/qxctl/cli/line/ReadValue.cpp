#include "tools/qxctl/cli/line/ReadValue.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/text/NearNames.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

Status Wrong(const Parameter& parameter, const std::string& what) {
  return {ExitCode::kUsage, std::string(parameter.name) + ": " + what};
}

std::string Quoted(std::string_view text) { return "\"" + Visible(text) + "\""; }

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

// Sets `text` to the choice as the table writes it.
Status CheckChoice(const Parameter& parameter, std::string_view& text) {
  for (const std::string_view choice : parameter.choices) {
    if (choice != text && !(parameter.ignores_case && EqualIgnoringCase(choice, text))) continue;
    text = choice;
    return {};
  }
  const std::vector<std::string> choices(parameter.choices.begin(), parameter.choices.end());
  return Wrong(parameter, Quoted(text) + " is not one of " + Listed(choices, "and") + "; give one of these");
}

// Decimal, or hexadecimal after "0x".
bool ParseNumber(std::string_view text, std::int64_t& number) {
  const bool is_hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (is_hexadecimal) text.remove_prefix(2);
  if (is_hexadecimal && text.starts_with('-')) return false;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number, is_hexadecimal ? 16 : 10);
  const bool is_whole = stop == text.data() + text.size() && !text.empty();
  // A number that is too large for its type is beyond every limit as well.
  if (is_whole && error == std::errc::result_out_of_range) number = text.starts_with('-') ? INT64_MIN : INT64_MAX;
  return is_whole && error != std::errc::invalid_argument;
}

bool ParseNumber(std::string_view text, double& number) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && stop == text.data() + text.size() && std::isfinite(number);
}

std::string RangeAdvice(const Parameter& parameter) {
  const std::string limits = ShownLimits(parameter);
  if (!limits.empty()) return "; give " + std::string(limits.starts_with("above") ? "a number " : "") + limits;
  return parameter.kind == ValueKind::kInteger ? "; give one such as 10" : "; give one such as 0.5";
}

template <typename Number>
Status CheckNumber(const Parameter& parameter, std::string_view text, Number& number) {
  const std::string whole = parameter.kind == ValueKind::kInteger ? "whole " : "";
  if (!ParseNumber(text, number)) {
    return Wrong(parameter, Quoted(text) + " is not a " + whole + "number" + RangeAdvice(parameter));
  }
  const auto value = static_cast<double>(number);
  if (value < parameter.limits.min) {
    const bool has_smallest = parameter.limits.min >= kPositive.min || parameter.limits.min <= 0;
    return Wrong(parameter,
                 std::string(text) + " is too small" +
                     (has_smallest ? "; the smallest is " + NumberText(parameter.limits.min) : RangeAdvice(parameter)));
  }
  if (value <= parameter.limits.max) return {};
  return Wrong(parameter, std::string(text) + " is too large; the largest is " + NumberText(parameter.limits.max));
}

Status ReadInteger(std::string_view text, Value& value) {
  std::int64_t number = 0;
  const bool is_choice = !value.parameter->choices.empty();  // the choices of an integer have no limits
  Status status = is_choice ? Status() : CheckNumber(*value.parameter, text, number);
  if (!status.IsOk()) return status;
  if (is_choice) (void)ParseNumber(text, number);
  if (value.parameter->is_repeatable) {
    value.integers.push_back(number);
  } else {
    value.integer = number;
  }
  return {};
}

}  // namespace

Status ReadValue(std::string_view text, Value& value) {
  const Parameter& parameter = *value.parameter;
  if (!parameter.choices.empty()) {
    if (Status status = CheckChoice(parameter, text); !status.IsOk()) return status;
  }
  if (parameter.check != nullptr) {
    const std::string_view fault = parameter.check(text);
    if (!fault.empty()) return Wrong(parameter, Quoted(text) + ": " + std::string(fault));
  }
  if (parameter.kind == ValueKind::kInteger) return ReadInteger(text, value);
  if (parameter.kind == ValueKind::kNumber) return CheckNumber(parameter, text, value.number);
  if (parameter.is_repeatable) {
    value.texts.emplace_back(text);
  } else {
    value.text = text;
  }
  return {};
}

}  // namespace qx::ctl
