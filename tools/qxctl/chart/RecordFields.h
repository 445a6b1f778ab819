// Finds the fields of a record: names with values in its text, or columns.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxctl/slice/RecordTime.h"

namespace qx::ctl {

enum class FieldType { kInteger, kNumber, kText };

// "integer", "number", "text"
[[nodiscard]] std::string_view NameOf(FieldType type);

// One field. `value` is a view into the text that was parsed; the name of a column is its number.
struct RecordField {
  std::string name;
  std::string_view value;  // without quotes; a number with its unit
  FieldType type = FieldType::kText;
  double number = 0;  // of an integer or a number

  [[nodiscard]] bool IsNumber() const { return type != FieldType::kText; }
};

// The rules by which the fields of a record are found.
struct FieldRules {
  std::string separator;  // of columns; empty: names with values
  TimeRules time;         // of the stamp, which is not a field
};

// The fields in the order of the text. If several have one name, only the first of them is returned.
//   "2026-01-31 10:20 cpu=12% state=ok"  => cpu 12 (integer), state ok (text)
//   "load 0.12, free: 7 GB, path=\"a b\""  => load 0.12 (number), free 7 (integer), path "a b" (text)
//   "09:00;7", separator ";"             => 1 "09:00" (text), 2 "7" (integer)
// After "=" a value may be anything; after ":" or a blank only a number is a value. A number may have a unit of
// letters, "%" and "/". A value ends at a blank, a comma, a semicolon, or a closing bracket without its opening one; a
// value in quotes may contain these.
[[nodiscard]] std::vector<RecordField> ParseFields(std::string_view text, const FieldRules& rules);

// The number after a key, or the number in a column.
//   key "cpu"     "09:00 cpu=12%"  => 12       key "load"  "09:00 load 0.12" => 0.12
//   column 2, " " "09:00 7 ok"     => 7        column 1    "09:00 7 ok"      => nothing: 09:00 is not a number
[[nodiscard]] std::optional<double> NumberOfKey(std::string_view text, std::string_view key);
[[nodiscard]] std::optional<double> NumberOfColumn(std::string_view text, std::string_view separator,
                                                   std::size_t column);

// The number of the field `name`. If the rules have a separator and `name` is a number, that is a column, else a key.
[[nodiscard]] std::optional<double> NumberOfField(std::string_view text, const std::string& name,
                                                  const FieldRules& rules);

// The value of a field for a document: an integer or a number without its unit, or a text.
[[nodiscard]] Json ValueToJson(const RecordField& field);

// Adds "timeMs" if the text begins with a stamp, and "fields" if it has fields. A name that is not UTF-8 is left out.
//   {"timeMs":1769854800000,"fields":{"cpu":12,"state":"ok"}}
void AddFields(Json& object, std::string_view text, const FieldRules& rules);

}  // namespace qx::ctl
