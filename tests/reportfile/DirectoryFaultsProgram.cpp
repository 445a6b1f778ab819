// Does one copy, removal or restore in its own process, so that strace can make its system calls fail.
//
//   directory_faults_program copy|remove|restore DIRECTORY
//
// It works on "from" and "to" in DIRECTORY; restore also reads the registry there. The exit code is 0 for true, 1 for
// false.
#include <csignal>
#include <cstring>
#include <string>

#include "debug/Debug.h"
#include "registry/RegistryPaths.h"
#include "reportfile/Directory.h"
#include "reportfile/ReportFileBase.h"

__attribute__((init_priority(101))) CDebug Debug;

namespace {

bool Run(const char* scenario, const std::string& directory) {
  const std::string from = directory + "/from";
  const std::string to = directory + "/to";
  if (std::strcmp(scenario, "copy") == 0) return CDirectory::CopyDir(from.c_str(), to.c_str(), "*.*", true);
  if (std::strcmp(scenario, "remove") == 0) return CDirectory::RemoveDir(from.c_str(), true);
  qx::registry::ResetRegistry(directory.c_str());
  return CReportFileBase::RestoreReportDataFiles(from);
}

}  // namespace

int main(int argc, char** argv) {
  (void)std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error like any other
  if (argc != 3 || !Debug.Init("Faults")) return 2;
  return Run(argv[1], argv[2]) ? 0 : 1;
}
