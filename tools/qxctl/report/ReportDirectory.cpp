#include "tools/qxctl/report/ReportDirectory.h"

#include "provider/ServerControlPaths.h"

namespace qx::ctl {

std::string ReportDirectory() {
  std::string directory;
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  return directory;
}

std::string BasePathOf(const std::string& name_or_path) {
  const bool is_path = name_or_path.find('/') != std::string::npos;
  return is_path ? name_or_path : ReportDirectory() + "/" + name_or_path;
}

}  // namespace qx::ctl
