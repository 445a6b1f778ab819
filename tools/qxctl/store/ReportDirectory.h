// Finds the report directory, and the reports that arguments name.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The directory that the registry names (empty if its value is empty), or the fallback: see store/FallbackDirectory.h.
std::string ReportDirectory();

// ReportDirectory for a command that reads or writes there: kRefused if the fallback would be used, this process is
// root, and the directory belongs to an ordinary user (see store/FallbackDirectory.h).
Status FindReportDirectory(std::string& directory);

// Whether an argument with a "/" may be the name of a report: "disk/sda", but not "/disk/sda", "./sda" or
// "disk/../sda".
bool MayBeReportName(const std::string& argument);

// The base path of a report as a command line names it: a path if it has a "/", else a name below the report directory.
// If no file of a report has that path, but a report below the report directory has that name, that report is meant. An
// ending of one of the two files is stripped, unless a report has the full name.
//   "./load"    => "./load"                 "load.ind"  => "/srv/reports/load"
//   "load"      => "/srv/reports/load"      "a/b.dat"   => "a/b", or "/srv/reports/a/b" if only that exists
// For a name, kRefused as from FindReportDirectory.
Status FindBasePath(const std::string& name_or_path, std::string& path);

// FindBasePath for a report that is to be made: an argument with a "/" is always a path.
Status FindNewBasePath(const std::string& name_or_path, std::string& path);

// The name under which the module transfers the report that an argument means. If the argument is the path of a
// report's files, they must be below the report directory (kNotFound). Any other argument is a name, even if no report
// has it.
//   "/srv/reports/disk/sda" => "disk/sda"
Status FindReportName(const std::string& name_or_path, std::string& name);

// The base path of the report that the module transfers under this name. Empty for a name that no report can have,
// because it has a component "..".
//   "a/load"  => "/srv/reports/a/load"
std::string BasePathOfReport(const std::string& name);

}  // namespace qx::ctl
