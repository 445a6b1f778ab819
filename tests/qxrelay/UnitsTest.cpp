// The units of systemd are valid, and deny what the services do not need.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/Support.h"

namespace {

namespace fs = std::filesystem;

class RelayUnits : public testing::Test {
 protected:
  // The exit code of systemd-analyze on a unit whose program is a built one, whichever; its output is in Said.
  int Analyze(const std::string& arguments, const std::string& unit) {
    std::string text = qx::test::ReadFile(unit);
    for (const std::string installed : {"/usr/bin/qxrelay", "/usr/bin/qxview"}) {
      for (std::size_t at = text.find(installed); at != std::string::npos; at = text.find(installed, at + 1)) {
        text.replace(at, installed.size(), QX_QXRELAY);
      }
    }
    const std::string copy = dir_.File(fs::path(unit).filename().string());
    qx::test::WriteFile(copy, text);
    const std::string command = "systemd-analyze " + arguments + " " + copy + " >" + dir_.File("said") + " 2>&1";
    return std::system(command.c_str());
  }
  [[nodiscard]] std::string Said() const { return qx::test::ReadFile(dir_.File("said")); }

  qx::test::TempDir dir_;
};

TEST_F(RelayUnits, AreSoundAndExposeLittle) {
  int units = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(std::string(QX_SOURCE_DIR) + "/packaging/systemd")) {
    if (entry.path().extension() != ".service") continue;
    ++units;
    EXPECT_EQ(Analyze("verify --man=no", entry.path()), 0) << Said();
    EXPECT_EQ(Said(), "") << entry.path();
    EXPECT_EQ(Analyze("security --offline=true --threshold=30", entry.path()), 0) << Said();  // an exposure of 3.0
  }
  EXPECT_GE(units, 1);
}

}  // namespace
