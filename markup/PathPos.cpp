#include "markup/PathPos.h"

#include <algorithm>

#include "markup/Ascii.h"

using qx::markup::IsClass;

PathPos::PathPos(std::string_view path) : rest_(path) { valid_ = Parse(); }

bool PathPos::Parse() {
  absolute_ = Take('/');
  any_depth_ = absolute_ && Take('/');
  if (!ParseStep()) return false;
  while (Take('/')) {
    if (!rest_.empty() && rest_.front() == '@') return ParseAttribute(steps_.back()) && rest_.empty();
    if (!ParseStep()) return false;
  }
  return rest_.empty();
}

// A step without a name needs a predicate in "[ ]", unless the step is the whole path.
bool PathPos::ParseStep() {
  PathStep step;
  step.name = TakeName();
  const bool has_predicate = !rest_.empty() && rest_.front() == '[';
  const bool whole_path = steps_.empty() && !absolute_ && rest_.empty();
  if (step.name.empty() && !has_predicate && !whole_path) return false;
  while (Take('[')) {
    if (!ParsePredicate(step)) return false;
  }
  steps_.push_back(std::move(step));
  return true;
}

bool PathPos::ParsePredicate(PathStep& step) {
  SkipSpaces();
  const bool parsed = !rest_.empty() && rest_.front() == '@' ? ParseAttribute(step) : ParsePosition(step);
  return parsed && Take(']');
}

bool PathPos::ParsePosition(PathStep& step) {
  constexpr std::uint64_t kPositionMax = UINT32_MAX;
  std::uint64_t position = 0;
  while (!rest_.empty() && IsClass(rest_.front(), qx::markup::kDigit)) {
    position = std::min(position * 10 + static_cast<std::uint64_t>(rest_.front() - '0'), kPositionMax);
    rest_.remove_prefix(1);
  }
  SkipSpaces();
  step.position = static_cast<std::uint32_t>(position);
  return position != 0;
}

// @name   @name='value'   @name="value"
bool PathPos::ParseAttribute(PathStep& step) {
  rest_.remove_prefix(1);
  PathAttribute attribute;
  attribute.name = TakeName();
  if (attribute.name.empty()) return false;
  if (Take('=')) {
    SkipSpaces();
    if (rest_.empty() || (rest_.front() != '"' && rest_.front() != '\'')) return false;
    const std::size_t close = rest_.find(rest_.front(), 1);
    if (close == std::string_view::npos) return false;
    attribute.any_value = false;
    attribute.value = rest_.substr(1, close - 1);
    rest_.remove_prefix(close + 1);
    SkipSpaces();
  }
  step.attributes.push_back(attribute);
  return true;
}

// A name ends at a space, "/", "=", "[", "]" or NUL; the spaces after it are skipped.
std::string_view PathPos::TakeName() {
  const auto last = std::find_if(rest_.begin(), rest_.end(), [](char c) { return IsClass(c, qx::markup::kStoredEnd); });
  const std::string_view name = rest_.substr(0, static_cast<std::size_t>(last - rest_.begin()));
  rest_.remove_prefix(name.size());
  SkipSpaces();
  return name;
}

void PathPos::SkipSpaces() {
  while (Take(' ')) {
  }
}

bool PathPos::Take(char expected) {
  if (rest_.empty() || rest_.front() != expected) return false;
  rest_.remove_prefix(1);
  return true;
}
