// The main function of the module's tests. They run in a mount namespace with a private /etc and /var/log, which the
// program enters itself (private_etc.c).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "debug/Debug.h"

// The report store that the tests link needs this object, to write reports. The module has an object of its own.
__attribute__((init_priority(101))) CDebug Debug;

namespace {

void EnterPrivateEtc(char** argv) {
  static char launcher[] = QX_PRIVATE_ETC_PATH;
  std::string self = std::filesystem::read_symlink("/proc/self/exe");
  std::vector<char*> arguments{launcher, self.data()};
  for (char** argument = argv + 1; *argument != nullptr; ++argument) arguments.push_back(*argument);
  arguments.push_back(nullptr);
  execv(launcher, arguments.data());
  std::perror(launcher);
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("QX_PRIVATE_ETC") == nullptr) {
    EnterPrivateEtc(argv);
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
