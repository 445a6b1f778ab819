// Where reports are.
#pragma once

#include <string>

namespace qx::ctl {

// The directory that the registry names; empty if it names an empty one.
std::string ReportDirectory();

// The base path of a report given as PATH (it has a "/") or as NAME (of a report in the report directory).
//   "./load"  => "./load"
//   "load"    => "/srv/reports/load"
std::string BasePathOf(const std::string& name_or_path);

}  // namespace qx::ctl
