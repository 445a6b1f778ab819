// Parses an element path into its steps: /a/b[2][@x='1']/@y
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

// One attribute that an element of a step must have.
struct PathAttribute {
  std::string_view name;
  bool any_value = true;
  std::string_view value;  // the unescaped text; only used if any_value is false
};

struct PathStep {
  std::string_view name;  // empty: any name
  std::vector<PathAttribute> attributes;
  // The number in a predicate such as [2]: it selects one of the elements that match the rest of the step, counted from
  // 1 in the order of the search. 0: no such predicate.
  std::uint32_t position = 0;
};

// A parsed element path.
//
// Threads: one thread at a time. Owns: the steps; names and values are views of the path's text.
class PathPos {
 public:
  // An empty path is one step that matches any element.
  explicit PathPos(std::string_view path);

  bool IsValid() const { return valid_; }
  bool IsAbsolute() const { return absolute_; }   // "/a": the search starts at document level
  bool IsAnyDepth() const { return any_depth_; }  // "//a": the first step may match at any level
  const std::vector<PathStep>& Steps() const { return steps_; }

 private:
  bool Parse();
  bool ParseStep();
  bool ParsePredicate(PathStep& step);
  bool ParsePosition(PathStep& step);
  bool ParseAttribute(PathStep& step);
  std::string_view TakeName();
  void SkipSpaces();
  bool Take(char expected);

  std::string_view rest_;
  bool valid_ = false;
  bool absolute_ = false;
  bool any_depth_ = false;
  std::vector<PathStep> steps_;
};
