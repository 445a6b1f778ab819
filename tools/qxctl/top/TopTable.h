// Shows a round of qxctl top as a table for people, and as a document.
#pragma once

#include <string>
#include <vector>

#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/top/TopReports.h"

namespace qx::ctl {

struct TopView {
  std::string directory;  // of the reports
  TimeRules time;
  bool unicode = false;
};

// The lines of the table: a line about all reports, the headings, and a line for each report. Control bytes of names
// and records are escaped; painted by `output`.
[[nodiscard]] std::vector<std::string> TopLines(const TopReports& reports, const TopView& view, const Output& output);

// The rate as records a second, or as records a minute if it is below one a second; "-" if it is not known.
//   0 => 0    0.5 => 30/min    12.34 => 12.3/s
[[nodiscard]] std::string RateText(const std::optional<double>& rate);

[[nodiscard]] Json ToJson(const TopRow& row);
[[nodiscard]] Json ToJson(const TopReports& reports, const TopView& view, std::uint64_t round);

}  // namespace qx::ctl
