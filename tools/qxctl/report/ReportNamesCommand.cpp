#include "tools/qxctl/report/ReportNamesCommand.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kIndexEnding = ".ind";

// In the order of names. Empty if the directory cannot be read: a key that completes a name is no place for messages.
std::vector<std::string> ReportNames() {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator file(ReportDirectory(), error), end; !error && file != end;
       file.increment(error)) {
    std::string name = file->path().filename().string();
    if (!name.ends_with(kIndexEnding) || name.find('\n') != std::string::npos) continue;
    name.resize(name.size() - kIndexEnding.size());
    names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
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
