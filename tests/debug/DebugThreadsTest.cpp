// Tests many threads that trace while the settings change: every entry must be in the log once, whole and in its order.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/debug/ThreadEntries.h"
#include "tests/debug/TraceFixture.h"
#include "tests/support/ChildProcess.h"

namespace {

using qx::test::StartsWithShape;
using qx::test::TraceSetup;
using qx::test::WriteFile;

constexpr int kThreads = 16;
constexpr int kEntriesEach = 300;

void RunThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

// A cancelled thread traces and then reaches its next cancellation point.
std::string CancelledTraceOf(TraceSetup& setup, const std::function<void()>& trace) {
  return qx::test::TextOfChild([&]() -> std::string {
    bool has_traced = false;
    bool is_cancelled = true;
    std::thread thread([&] {
      ::pthread_cancel(::pthread_self());
      trace();
      has_traced = true;
      ::pthread_testcancel();
      is_cancelled = false;
    });
    thread.join();
    setup.Trace().PrintAlways("the lock is free");
    return std::string(has_traced ? "traced" : "not traced") + (is_cancelled ? ", then cancelled" : ", and lives");
  });
}

TEST(DebugCancellation, CancelledThreadEndsItsTraceCallFirst) {
  TraceSetup setup;
  setup.WriteIni("app.ini", "[QxTrace]\nMemoryTracesFlag=1\n[EndOfFile]");
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "1000");
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.WriteIni("app.ini", "[QxTrace]\nMemoryTracesFlag=1\n[EndOfFile]");  // newer, so that a check reads it
  CDebug& debug = setup.Trace();
  const std::string ring = setup.LogDir().File("ring");
  const std::function<void()> calls[] = {
      [&] { debug.Print(1, "entry"); }, [&] { debug.WriteLogHeader(CDebug::kTargetLogFile); },
      [&] { (void)debug.InitRingBuffer(ring.c_str(), 32768); }, [&] { (void)debug.Init(TraceSetup::kAppName); },
      [&] { setup.Trace().CheckDynamicUpdate(std::time(nullptr) + 1000); }};
  for (const auto& call : calls) EXPECT_EQ(CancelledTraceOf(setup, call), "traced, then cancelled");
}

TEST(DebugThreads, SixteenThreadsLoseNoEntryWhileTheSettingsFilesChange) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "1");
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "-1");
  const std::string levels[] = {"[QxTrace]\nFileDebugLevel=1\nTraceFlags=1\n[EndOfFile]",
                                "[QxTrace]\nFileDebugLevel=4\n[EndOfFile]", "[QxTrace]\nFileDebugLevel=9\n",
                                "[QxTrace]\nFileDebugLevel=2\nTraceFlags=7\n[EndOfFile]"};
  setup.WriteIni("app.ini", levels[0]);
  ASSERT_TRUE(setup.Init());

  std::atomic<bool> is_over{false};
  std::thread editor([&] {
    for (std::time_t now = std::time(nullptr); !is_over;) {
      for (const std::string& text : levels) {
        WriteFile(setup.IniPath("app.ini"), text);
        setup.Trace().CheckDynamicUpdate(now += 10);
      }
    }
  });
  RunThreads(kThreads, [&](int thread) {
    for (int entry = 0; entry < kEntriesEach; ++entry) {
      setup.Trace().Print(1, "\nt%d e%d %s", thread, entry, qx::test::TextOfEntry(entry).c_str());
    }
  });
  is_over = true;
  editor.join();
  qx::test::ExpectEntriesOfAllThreads(setup.PlainLog(), kThreads * kEntriesEach);
}

// The number of lines that are neither a whole "t00 e000" entry, nor the head, nor a wrap line.
int TornLines(const std::string& log) {
  const auto is_whole = [](std::string line) {
    if (line == "S [T] QxTrace       head") return true;
    const std::size_t cycle = line.find("Cycle=");
    if (cycle == std::string::npos) return line.size() == 28 && StartsWithShape(line, "S [T] QxTrace       t99 e999");
    line.erase(cycle, line.find(',', cycle) - cycle);
    return line == "S [T] QxTrace       ------ WRAP ----- , CntInitEnd=54, CurrentByteCnt=54 (MaxCnt=20000)";
  };
  std::istringstream lines(log);
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) count += is_whole(line) ? 0 : 1;
  return count;
}

TEST(DebugThreads, WrapsKeepEveryLineWholeWhileManyThreadsTrace) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "20000");
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "head");
  setup.Trace().SetApplInitDone();
  RunThreads(kThreads, [&](int thread) {
    for (int entry = 0; entry < kEntriesEach; ++entry) setup.Trace().Print(1, "t%02d e%03d", thread, entry);
  });
  const std::string log = setup.PlainLog();
  EXPECT_EQ(log.substr(0, 25), "S [T] QxTrace       head\n");
  EXPECT_NE(log.find("------ WRAP ----- Cycle="), std::string::npos);
  EXPECT_LE(TornLines(log), 1);  // between the newest entry and the previous cycle
  EXPECT_LT(setup.Log().size(), 20000U + 1200);
}

TEST(DebugThreads, OneThreadMayTraceFromWithinATracedOperation) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  RunThreads(4, [&](int) {
    for (int i = 0; i < 50; ++i) {
      setup.Trace().WriteLogHeader(CDebug::kTargetLogFile);
      char header[129];
      setup.Trace().SetEntryHeader(header, sizeof header, nullptr);
    }
  });
  EXPECT_NE(setup.Log().find("# End of header.\n"), std::string::npos);
}

TEST(DebugThreads, SwitchingTargetLevelAndLogWhileOthersTraceIsSafe) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "-1");
  ASSERT_TRUE(setup.InitAtLevel(3));
  std::atomic<bool> is_over{false};
  std::thread controller([&] {
    while (!is_over) {
      setup.Trace().ForceMaxDebug(false);
      setup.Trace().SetTarget(CDebug::kTargetNone);
      setup.Trace().ForceMaxDebug(true);
      setup.Trace().SetApplInitDone();
      EXPECT_TRUE(setup.Trace().Init(TraceSetup::kAppName));
    }
  });
  RunThreads(4, [&](int thread) {
    for (int entry = 0; entry < kEntriesEach; ++entry) {
      if (setup.Trace().IsActive()) setup.Trace().Print(2, "t%d e%d", thread, entry);
      setup.Trace().PrintAlways("always");
    }
  });
  is_over = true;
  controller.join();
  EXPECT_TRUE(setup.Trace().IsActive());
}

}  // namespace
