// Tests the trace settings when there is no memory.
#include <gtest/gtest.h>

#include "debug/tools/TraceSettingSources.h"
#include "tests/support/EachAllocation.h"
#include "tests/support/Support.h"

namespace qx::test {

// The address sanitizer finds a leak.
TEST(TraceSettingsMemory, FailedAllocationThrowsAndLeaksNothing) {
  const TempDir directory;
  for (const char* name : {"a.ini", "b.ini", "c.ini"}) WriteFile(directory.File(name), "[Other]\n[EndOfFile]\n");
  WriteFile(directory.File("d.ini"), "[QxTrace]\nFileDebugLevel=2\n[EndOfFile]\n");
  const auto read = [&] {
    for (const debug::SettingSource& source : debug::ReadSettingSources("QxTrace", directory.Path())) {
      if (source.setting == "level") return source.value;
    }
    return std::string();
  };
  WithEachAllocationFailing<std::string>(
      [] {}, read, [](const std::optional<std::string>& level) { EXPECT_EQ(level.value_or("2"), "2"); });
}

}  // namespace qx::test
