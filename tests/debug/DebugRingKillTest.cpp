// Tests that a writer that is killed at any moment leaves a ring that can be read up to its newest entry.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <random>

#include "debug/RingFormat.h"
#include "tests/debug/RingFixture.h"
#include "tests/support/Shared.h"

namespace {

using qx::test::RingSetup;
using qx::test::StartsWithShape;

constexpr std::uint32_t kKilledRingSize = 65536;
constexpr std::string_view kEntryShape = "9999-99-99 99:99:99.999 [FFFFFFFF] QxTrace       ";

// "#17 xxxxxxxxxxxxxxxxx": its length depends on the number, and some texts are long.
std::string TextOf(int number) {
  const std::size_t size = number % 23 == 0 ? 1300 : static_cast<std::size_t>(number) * 37 % 211;
  return "#" + std::to_string(number) + " " + std::string(size, 'x');
}

void WriteUntilKilled(RingSetup& setup, std::atomic<int>& acknowledged, bool is_new) {
  if (is_new ? !setup.OpenRing(kKilledRingSize) : !setup.Restart(kKilledRingSize)) ::_exit(1);
  for (int number = acknowledged + 1;; ++number) {
    setup.Trace().Print(1, "%s", TextOf(number).c_str());
    acknowledged = number;
  }
}

void KillAfter(pid_t child, long nanoseconds) {
  const timespec pause{0, nanoseconds};
  ::nanosleep(&pause, nullptr);
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << status;
}

// The number of the entry that ends at `end`, or -1 if it is not whole.
int NumberOfEntryBefore(const std::string& ring, std::size_t end) {
  const std::size_t begin = ring.rfind('\n', end - 2) + 1;
  const std::string line = ring.substr(begin, end - begin);
  int number = -1;
  if (!StartsWithShape(line, kEntryShape) || std::sscanf(line.c_str() + kEntryShape.size(), "#%d ", &number) != 1) {
    return -1;
  }
  return line.substr(kEntryShape.size()) == TextOf(number) + "\n" ? number : -1;
}

// The number of numbered entries, from the newest one back, that are whole and in order.
int WholeEntriesBefore(const std::string& ring, std::size_t end, int newest) {
  int count = 0;
  while (newest - count > 0 && NumberOfEntryBefore(ring, end) == newest - count) {
    end -= kEntryShape.size() + TextOf(newest - count).size() + 1;
    ++count;
  }
  return count;
}

void ExpectValidNumbers(const RingSetup& setup, const std::string& ring) {
  ASSERT_EQ(ring.size(), kKilledRingSize);
  for (const std::size_t number_at : {275U, 355U, 435U, 515U}) {
    ASSERT_TRUE(qx::debug::ReadRingNumber(ring.substr(number_at, 16)).has_value()) << number_at;
  }
  ASSERT_EQ(setup.Number(5), kKilledRingSize);
}

TEST(DebugRingKill, KilledWriterLeavesAcknowledgedEntriesAndValidNumbers) {
  std::mt19937_64 random(qx::test::Seed("DebugRingKill"));
  RingSetup setup;
  const qx::test::Shared<std::atomic<int>> acknowledged(0);  // how many entries the killed child has written
  int judged = 0;
  for (int round = 1; round <= 200; ++round) {
    const int before = *acknowledged;
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) WriteUntilKilled(setup, *acknowledged, round == 1);
    while (round == 1 && *acknowledged == 0) ::sched_yield();  // another test covers a file that was never whole
    KillAfter(child, static_cast<long>(random() % 4000000));
    const std::string ring = setup.Ring();
    ASSERT_NO_FATAL_FAILURE(ExpectValidNumbers(setup, ring)) << "round " << round;
    const std::size_t end = qx::test::EndOfNewest(ring);
    ASSERT_NE(end, 0U) << "round " << round;
    if (*acknowledged == before) continue;  // killed while it started
    const int newest = NumberOfEntryBefore(ring, end);
    if (newest == -1) {  // the writer was killed inside a wrap: the header block follows the position
      ASSERT_LT(end, 12288U) << "round " << round;
      continue;
    }
    ++judged;
    ASSERT_GE(newest, *acknowledged) << "round " << round;
    ASSERT_LE(newest, *acknowledged + 1) << "round " << round;
    ASSERT_GE(WholeEntriesBefore(ring, end, newest), std::min(newest - before, 1)) << "round " << round;
    *acknowledged = newest;
  }
  EXPECT_GT(judged, 50);
  EXPECT_GT(setup.Wraps(), 5U);
}

}  // namespace
