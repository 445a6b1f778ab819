// The numbers in a field of each record.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx::ctl {

// The number after a key, or that of a column.
//   key "cpu"     "09:00 cpu=12%"  => 12       key "load"  "09:00 load 0.12" => 0.12
//   column 2, " " "09:00 7 ok"     => 7        column 1    "09:00 7 ok"      => nothing: 09:00 is not a number
// A number may be followed by a unit (%, kB), a blank, a comma, a semicolon or a closing bracket.
[[nodiscard]] std::optional<double> NumberOfKey(std::string_view text, std::string_view key);
[[nodiscard]] std::optional<double> NumberOfColumn(std::string_view text, std::string_view separator,
                                                   std::size_t column);

// Threads: used by one thread.
class FieldSeries {
 public:
  // `field`: a key, or with a separator the number of a column from 1 on.
  FieldSeries(std::string field, std::string separator);

  void Add(std::string_view record);

  const std::string& Field() const { return field_; }
  const std::vector<double>& Values() const { return values_; }
  // Records without a number there.
  std::uint64_t Skipped() const { return skipped_; }

 private:
  std::string field_;
  std::string separator_;
  std::optional<std::size_t> column_;
  std::vector<double> values_;
  std::uint64_t skipped_ = 0;
};

}  // namespace qx::ctl
