// Tests many threads that trace into the ring while the settings files change: no entry may be lost or torn.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "tests/debug/RingFixture.h"
#include "tests/debug/ThreadEntries.h"

namespace {

using qx::test::kTerminator;
using qx::test::RingSetup;
using qx::test::StartsWithShape;
using qx::test::WriteFile;

constexpr int kRingThreads = 8;
constexpr int kRingEntriesEach = 400;

void RunThreads(const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  threads.reserve(kRingThreads);
  for (int t = 0; t < kRingThreads; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

const std::string kSettings[] = {"[QxTrace]\nFileDebugLevel=1\nRingBufferSizeWeight=1\n[EndOfFile]",
                                 "[QxTrace]\nFileDebugLevel=4\nRingBufferSizeWeight=0\n[EndOfFile]",
                                 "[QxTrace]\nFileDebugLevel=9\n",
                                 "[QxTrace]\nFileDebugLevel=2\nTraceFlags=7\n[EndOfFile]"};

TEST(DebugRingThreads, EightThreadsLoseNoEntryWhileTheSettingsFilesChange) {
  RingSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "1");
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", nullptr);
  setup.SetEnv("TraceFileLimit", "1");
  setup.WriteIni("app.ini", kSettings[0]);
  ASSERT_TRUE(setup.Init());
  setup.Trace().SetApplInitDone();
  const std::size_t from = setup.Position();

  std::atomic<bool> is_over{false};
  std::thread editor([&] {
    for (std::time_t now = std::time(nullptr); !is_over;) {
      for (const std::string& text : kSettings) {
        WriteFile(setup.IniPath("app.ini"), text);
        setup.Trace().CheckDynamicUpdate(now += 10);
      }
    }
  });
  RunThreads([&](int thread) {
    for (int entry = 0; entry < kRingEntriesEach; ++entry) {
      setup.Trace().Print(1, "\nt%d e%d %s", thread, entry, qx::test::TextOfEntry(entry).c_str());
    }
  });
  is_over = true;
  editor.join();

  ASSERT_EQ(setup.Wraps(), 0U);
  qx::test::ExpectEntriesOfAllThreads(qx::test::WithoutStamps(setup.Ring().substr(from, setup.Position() - from)),
                                      kRingThreads * kRingEntriesEach);
  EXPECT_EQ(setup.Log(), "");
}

TEST(DebugRingThreads, WrapsKeepEveryEntryWhole) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(65536));
  RunThreads([&](int thread) {
    for (int entry = 0; entry < kRingEntriesEach; ++entry) setup.Trace().Print(1, "t%02d e%03d", thread, entry);
  });
  EXPECT_GE(setup.Wraps(), 2U);
  const std::string ring = setup.Ring();
  const std::size_t position = setup.Position();
  EXPECT_EQ(ring.substr(position, 16), kTerminator);
  // Every entry of this test has 58 bytes, so from the newest one back to the start of the cycle there is no gap.
  constexpr std::size_t kEntryBytes = RingSetup::kHeaderBytes + 9;
  std::size_t begin = position;
  while (StartsWithShape(ring.substr(begin - kEntryBytes, kEntryBytes),
                         "9999-99-99 99:99:99.999 [FFFFFFFF] QxTrace       t99 e999")) {
    begin -= kEntryBytes;
  }
  EXPECT_EQ(begin % 1024, 0U);
}

TEST(DebugRingThreads, OpeningClosingAndMarkingWhileOthersTraceIsSafe) {
  RingSetup setup;
  std::atomic<bool> is_over{false};
  std::thread controller([&] {
    while (!is_over) {
      EXPECT_TRUE(setup.OpenRing(65536));
      setup.Trace().SetApplInitDone();
      setup.Trace().SetTarget(CDebug::kTargetLogFile);
      EXPECT_TRUE(setup.Init());
    }
  });
  RunThreads([&](int thread) {
    for (int entry = 0; entry < kRingEntriesEach / 4; ++entry) {
      setup.Trace().Print(1, "t%d e%d", thread, entry);
      setup.Trace().PrintAlways("always");
    }
  });
  is_over = true;
  controller.join();
}

}  // namespace
