// Where reports are.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The directory that the registry names; empty if it names an empty one.
std::string ReportDirectory();

// The same for a command that reads or writes there: kRefused if an ordinary user made the directory for root (see
// store/FallbackDirectory.h).
Status FindReportDirectory(std::string& directory);

// The base path of a report given as PATH (it has a "/") or as NAME (of a report in the report directory).
//   "./load"  => "./load"
//   "load"    => "/srv/reports/load"
// A name is refused as by FindReportDirectory.
Status FindBasePath(const std::string& name_or_path, std::string& path);

// The base path of the report that the module transfers under this name. Empty for a name that no report can have,
// because it has a component "..".
//   "a/load"  => "/srv/reports/a/load"
std::string BasePathOfReport(const std::string& name);

}  // namespace qx::ctl
