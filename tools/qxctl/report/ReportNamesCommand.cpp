#include "tools/qxctl/report/ReportNamesCommand.h"

#include <string>
#include <vector>

#include "reportfile/tools/ReportSurvey.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

// Empty if the directory cannot be read: a key that completes a name must not print messages.
std::vector<std::string> ReportNames() {
  std::vector<std::string> names = report::FindReports(ReportDirectory()).names;
  std::erase_if(names, [](const std::string& name) { return name.find('\n') != std::string::npos; });
  return names;
}

Status PrintReportNames(Context& context, const Values&) {
  for (const std::string& name : ReportNames()) {
    if (Status status = context.output.Data(name + "\n"); !status.IsOk()) return status;
  }
  return {};
}

}  // namespace

constinit const Command kReportNamesCommand = {
    .words = "_reports", .help = "", .run = PrintReportNames, .is_hidden = true};

}  // namespace qx::ctl
