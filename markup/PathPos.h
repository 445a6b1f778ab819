// An element path, cut into its steps:  /a/b[2][@x='1']/@y
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

// One attribute that an element of a step must have.
struct PathAttribute {
  std::string_view name;
  bool any_value = true;
  std::string_view value;  // as an unescaped text, unless any_value
};

struct PathStep {
  std::string_view name;  // empty: any
  std::vector<PathAttribute> attributes;
  // Counts, from 1, the elements that the step's search comes to and that match so far; 0: no such predicate.
  std::uint32_t position = 0;
};

// Threads: none of its own. Owns: the steps; names and values view the path's text.
class PathPos {
 public:
  // An empty path is one step that matches any element.
  explicit PathPos(std::string_view path);

  bool IsValid() const { return valid_; }
  bool IsAbsolute() const { return absolute_; }   // "/a": searched from the document on
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
  bool Take(char wanted);

  std::string_view rest_;
  bool valid_ = false;
  bool absolute_ = false;
  bool any_depth_ = false;
  std::vector<PathStep> steps_;
};
