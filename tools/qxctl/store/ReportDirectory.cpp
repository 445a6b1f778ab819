#include "tools/qxctl/store/ReportDirectory.h"

#include "provider/ServerControlPaths.h"
#include "tools/qxctl/store/FallbackDirectory.h"

namespace qx::ctl {

std::string ReportDirectory() {
  std::string directory;
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  return directory;
}

Status FindReportDirectory(std::string& directory) {
  if (Status status = CheckFallbackDirectory(); !status.IsOk()) return status;
  directory = ReportDirectory();
  return {};
}

Status FindBasePath(const std::string& name_or_path, std::string& path) {
  path = name_or_path;
  if (name_or_path.find('/') != std::string::npos) return {};
  std::string directory;
  if (Status status = FindReportDirectory(directory); !status.IsOk()) return status;
  path = directory + "/" + name_or_path;
  return {};
}

std::string BasePathOfReport(const std::string& name) {
  if (("/" + name + "/").find("/../") != std::string::npos) return {};
  return ReportDirectory() + "/" + name;
}

}  // namespace qx::ctl
