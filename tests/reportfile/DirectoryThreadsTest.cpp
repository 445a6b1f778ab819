// Tests several threads that copy and remove at once: each thread changes only its own tree, and every trace line is
// whole.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "reportfile/Directory.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

constexpr int kThreads = 4;
constexpr int kThreadRounds = 8;

TEST(DirectoryThreads, EachThreadCopiesAndRemovesItsOwnTree) {
  const TempDir dir;
  const Tree tree = {{"a.dat", std::string(5000, 'a')}, {"s/", ""}, {"s/b", "b"}};
  MakeTree(dir.File("from"), tree);
  const TraceCapture trace(6);
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i, to = dir.File("to" + std::to_string(i))] {
      int& failed = failures[static_cast<std::size_t>(i)];
      for (int round = 0; round < kThreadRounds; ++round) {
        if (!CDirectory::CopyDir(dir.File("from").c_str(), to.c_str(), "*.*", false)) ++failed;
        if (ContentsOf(to) != tree) ++failed;
        if (!CDirectory::RemoveDir(to.c_str(), true) || Exists(to)) ++failed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  // A copy has five lines, a removal twelve.
  EXPECT_EQ(trace.Entries().size(), static_cast<std::size_t>(kThreads * kThreadRounds * (5 + 12)));
  for (const std::string& line : trace.Entries()) EXPECT_TRUE(line.starts_with("CDirectory")) << line;
}

TEST(DirectoryThreads, CopiesOfOneTreeOntoOneDestinationLeaveItWhole) {
  const TempDir dir;
  const Tree tree = {{"a.dat", std::string(50000, 'a')}, {"s/", ""}, {"s/b", "b"}};
  MakeTree(dir.File("from"), tree);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(
        [&] { EXPECT_TRUE(CDirectory::CopyDir(dir.File("from").c_str(), dir.File("to").c_str(), "*.*", true)); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ContentsOf(dir.File("to")), tree);
}

}  // namespace
}  // namespace qx::test
