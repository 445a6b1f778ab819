// Tests the units of systemd: they must be valid, and deny what the services do not need.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace {

namespace fs = std::filesystem;

class RelayUnits : public testing::Test {
 protected:
  // Puts all units into one directory, because a timer needs its service. Their program is any built program.
  RelayUnits() {
    for (const fs::directory_entry& entry : fs::directory_iterator(std::string(QX_SOURCE_DIR) + "/packaging/systemd")) {
      const fs::path extension = entry.path().extension();
      if (extension != ".service" && extension != ".timer") continue;
      std::string text = qx::test::ReadFile(entry.path());
      for (const std::string installed :
           {"/usr/bin/qxrelay", "/usr/bin/qxview", "/usr/bin/qxctl", "/usr/bin/qxagent"}) {
        for (std::size_t at = text.find(installed); at != std::string::npos; at = text.find(installed, at + 1)) {
          text.replace(at, installed.size(), QX_QXRELAY);
        }
      }
      units_.push_back(entry.path().filename().string());
      qx::test::WriteFile(dir_.File(units_.back()), text);
    }
  }

  // Runs systemd-analyze and returns its exit code; its output is in Said.
  int Analyze(const std::string& arguments, const std::string& unit) {
    const std::string command =
        "systemd-analyze " + arguments + " " + dir_.File(unit) + " >" + dir_.File("said") + " 2>&1";
    return std::system(command.c_str());
  }
  [[nodiscard]] std::string Said() const { return qx::test::ReadFile(dir_.File("said")); }

  qx::test::TempDir dir_;
  std::vector<std::string> units_;
};

TEST_F(RelayUnits, AreSoundAndExposeLittle) {
  for (const std::string& unit : units_) {
    EXPECT_EQ(Analyze("verify --man=no", unit), 0) << Said();
    EXPECT_EQ(Said(), "") << unit;
    if (!unit.ends_with(".service")) continue;
    EXPECT_EQ(Analyze("security --offline=true --threshold=30", unit), 0) << Said();  // an exposure of 3.0
  }
  EXPECT_GE(units_.size(), 1U);
}

}  // namespace
