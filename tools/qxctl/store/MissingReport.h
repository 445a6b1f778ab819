// Writes the message about a report that does not exist: the directory that was searched, the registry value that names
// this directory, and reports with near names.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// kNotFound for the report `name` of the report directory.
//   no report laod in /srv/reports; did you mean load? (ReportRoot in HKEY_LOCAL_MACHINE/.../Setup names that
//   directory)
// [the only thread]
[[nodiscard]] Status NoSuchReport(const std::string& name);

// NoSuchReport for the path of a report's files without their endings. Only its own directory is searched. If that
// directory does not exist, but the path is near the name of a report, the message is that of NoSuchReport.
//   no report laod in ./Reports; did you mean load?
//   no report disk/sdb in /srv/reports; did you mean disk/sda? (...)
[[nodiscard]] Status NoSuchReportAt(const std::string& base_path);

// NoSuchReport for an argument that is a NAME, or NoSuchReportAt for a PATH, which has a "/".
[[nodiscard]] Status NoSuchReportNamed(const std::string& name_or_path);

// kNotFound for the names file of a report of the report directory: NoSuchReport if there is no such report either.
//   the report load has no instance names: there is no file /srv/reports/load.names
// [the only thread]
[[nodiscard]] Status NoNamesFile(const std::string& name);

// kNotFound for a report directory that does not exist.
//   there is no report directory /srv/reports; "install -d -m 0755 /srv/reports" makes it (ReportRoot in ...)
// [the only thread]
[[nodiscard]] Status NoReportDirectory(const std::string& directory);

}  // namespace qx::ctl
