// Tests the trace settings and the set-up of the ring file when there is no memory.
#include <gtest/gtest.h>

#include "debug/Debug.h"
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

// The path is longer than the one for which the trace object has memory.
TEST(TraceRingMemory, RingWithoutMemoryForItsPathIsLogged) {
  const TempDir directory;
  const std::string path = directory.File(std::string(200, 'x'));
  const TraceCapture trace(1);
  {
    const FailingAllocation failing({.nth = 1});
    EXPECT_FALSE(Debug.InitRingBuffer(path.c_str(), 65536));
    EXPECT_TRUE(failing.HasFailed());
  }
  EXPECT_EQ(trace.Text(), "### InitRingBuffer(): open of " + path + " failed (errno=12; Cannot allocate memory) ###\n");
  EXPECT_FALSE(Exists(path));
}

}  // namespace qx::test
