// Checks entries of several threads, "tT eE xxx": thread, number, and a text whose length follows from the number.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>

namespace qx::test {

inline std::string TextOfEntry(int entry) { return std::string(static_cast<std::size_t>(entry % 97), 'x'); }

// `log`, without stamps, must have `count` entries: each thread's entries once, whole and in their order.
inline void ExpectEntriesOfAllThreads(const std::string& log, int count) {
  std::istringstream lines(log);
  std::map<int, int> next_of_thread;
  int found = 0;
  for (std::string line; std::getline(lines, line); ++found) {
    int thread = -1;
    int entry = -1;
    int end = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "S [T] QxTrace       t%d e%d %n", &thread, &entry, &end), 2) << line;
    ASSERT_EQ(line.substr(static_cast<std::size_t>(end)), TextOfEntry(entry));
    ASSERT_EQ(entry, next_of_thread[thread]++) << line;
  }
  EXPECT_EQ(found, count);
}

}  // namespace qx::test
