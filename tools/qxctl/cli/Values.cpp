#include "tools/qxctl/cli/Values.h"

#include <algorithm>
#include <cassert>

namespace qx::ctl {

namespace {

bool IsText(const Parameter& parameter) {
  return parameter.kind != ValueKind::kNone && parameter.kind != ValueKind::kInteger &&
         parameter.kind != ValueKind::kNumber;
}

}  // namespace

Value& Values::Add(const Parameter& parameter) {
  values_.emplace_back();
  values_.back().parameter = &parameter;
  return values_.back();
}

bool Values::Knows(std::string_view name) const {
  return std::any_of(values_.begin(), values_.end(), [&](const Value& each) { return each.parameter->name == name; });
}

bool Values::Has(std::string_view name) const { return Find(name).is_given; }

bool Values::Flag(std::string_view name) const {
  const Value& value = Find(name);
  assert(value.parameter->kind == ValueKind::kNone);
  return value.flag;
}

std::string Values::Text(std::string_view name, std::string_view otherwise) const {
  const Value& value = Find(name);
  assert(IsText(*value.parameter) && !value.parameter->is_repeatable);
  return value.is_given ? value.text : std::string(otherwise);
}

std::vector<std::string> Values::Texts(std::string_view name) const {
  const Value& value = Find(name);
  assert(IsText(*value.parameter) && value.parameter->is_repeatable);
  return value.texts;
}

std::int64_t Values::Integer(std::string_view name, std::int64_t otherwise) const {
  const Value& value = Find(name);
  assert(value.parameter->kind == ValueKind::kInteger && !value.parameter->is_repeatable);
  return value.is_given ? value.integer : otherwise;
}

std::vector<std::int64_t> Values::Integers(std::string_view name) const {
  const Value& value = Find(name);
  assert(value.parameter->kind == ValueKind::kInteger && value.parameter->is_repeatable);
  return value.integers;
}

double Values::Number(std::string_view name, double otherwise) const {
  const Value& value = Find(name);
  assert(value.parameter->kind == ValueKind::kNumber);
  return value.is_given ? value.number : otherwise;
}

const Value& Values::Find(std::string_view name) const {
  const auto found =
      std::find_if(values_.begin(), values_.end(), [&](const Value& each) { return each.parameter->name == name; });
  assert(found != values_.end());
  return *found;
}

}  // namespace qx::ctl
