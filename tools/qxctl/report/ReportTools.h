// The commands of qxctl report that check, save, back up and restore reports; ReportCommand.cpp adds them to its own.
#pragma once

#include <string>

#include "tools/qxctl/cli/Commands.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

void AddReportCheckCommands(CLI::App& report, Context& context);   // verify, salvage
void AddReportBackupCommands(CLI::App& report, Context& context);  // backup, restore

// The directory that the registry names; empty if it names an empty one.
std::string ReportDirectory();

// The base path of a report given as PATH (it has a "/") or as NAME (of a report in the report directory).
//   "./load"  => "./load"
//   "load"    => "/srv/reports/load"
std::string BasePathOf(const std::string& name_or_path);

}  // namespace qx::ctl
