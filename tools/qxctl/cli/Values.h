// The values of a command's parameters on the command line.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

// The member of the parameter's kind has the given value; the others stay empty.
struct Value {
  const Parameter* parameter = nullptr;
  bool is_given = false;
  bool flag = false;
  std::int64_t integer = 0;
  double number = 0;
  std::string text;
  std::vector<std::string> texts;      // of a repeatable parameter
  std::vector<std::int64_t> integers;  // of a repeatable integer
};

// Values are read by the name of their parameter. A name that the command does not have, or another kind, is a mistake
// in the tool and ends the process.
//
// Threads: any number may read.
class Values {
 public:
  // Adds a value; called by the parser. The reference is valid during the life of this object.
  Value& Add(const Parameter& parameter);
  const std::deque<Value>& All() const { return values_; }

  // Whether the command has the parameter: for functions of several commands that do not all have it.
  bool Knows(std::string_view name) const;
  bool Has(std::string_view name) const;
  bool Flag(std::string_view name) const;
  std::string Text(std::string_view name, std::string_view otherwise = {}) const;
  std::vector<std::string> Texts(std::string_view name) const;
  std::int64_t Integer(std::string_view name, std::int64_t otherwise) const;
  std::vector<std::int64_t> Integers(std::string_view name) const;
  double Number(std::string_view name, double otherwise) const;

 private:
  const Value& Find(std::string_view name) const;

  std::deque<Value> values_;  // a deque: growing does not move the values that the parser writes to
};

}  // namespace qx::ctl
