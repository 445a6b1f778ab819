#include "process/ProcFiles.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qx::process::BytesOnStatusLine;
using qx::process::InUnit;
using qx::process::PidOfDirectoryName;

TEST(ProcFiles, StatusNumbersAreScaledByTheirUnitWord) {
  constexpr std::string_view kText =
      "Name:\tcat\nVmPeak:\t   100 kB\nVmSize:\t 2 MB\nVmLib:\t3 GB\nThreads:\t5\nOdd:\t7 TB\nVmSwap:\t       0 kB\n";
  EXPECT_EQ(BytesOnStatusLine(kText, "VmPeak:"), 102400U);
  EXPECT_EQ(BytesOnStatusLine(kText, "VmSize:"), 2097152U);
  EXPECT_EQ(BytesOnStatusLine(kText, "VmLib:"), 3221225472U);
  EXPECT_EQ(BytesOnStatusLine(kText, "Threads:"), 5U);
  EXPECT_EQ(BytesOnStatusLine(kText, "Odd:"), 7U);
  EXPECT_EQ(BytesOnStatusLine(kText, "VmSwap:"), 0U);
}

TEST(ProcFiles, KeyMatchesOnlyAWholeFirstWord) {
  constexpr std::string_view kText = "VmSize:x 1 kB\nOther: VmSize: 2 kB\n  VmSize: 3 kB\nVmSize: 4 kB";
  EXPECT_EQ(BytesOnStatusLine(kText, "VmSize:"), 3072U);
  EXPECT_EQ(BytesOnStatusLine(kText, "VmSize"), std::nullopt);
}

TEST(ProcFiles, LineWithoutANumberGivesNothing) {
  EXPECT_EQ(BytesOnStatusLine("Name:\tcat\n", "Name:"), std::nullopt);
  EXPECT_EQ(BytesOnStatusLine("VmSize:\n", "VmSize:"), std::nullopt);
  EXPECT_EQ(BytesOnStatusLine("VmSize:", "VmSize:"), std::nullopt);
  EXPECT_EQ(BytesOnStatusLine("", "VmSize:"), std::nullopt);
}

TEST(ProcFiles, EachUnitStepIsAShiftByTenBitsRoundedDown) {
  EXPECT_EQ(InUnit(2097151, 0), 2097151U);
  EXPECT_EQ(InUnit(2097151, 1), 2047U);
  EXPECT_EQ(InUnit(2097151, 2), 1U);
  EXPECT_EQ(InUnit(2097151, 3), 0U);
  EXPECT_EQ(InUnit(2097151, 1000000000), 0U);
  EXPECT_EQ(InUnit(2097151, -1), 2097151U);
}

TEST(ProcFiles, OnlyPositiveDecimalNumbersAreProcessDirectories) {
  EXPECT_EQ(PidOfDirectoryName("17"), 17);
  EXPECT_EQ(PidOfDirectoryName("2147483647"), 2147483647);
  for (const char* name : {"", "0", "-1", "17x", "x17", "self", "2147483648", "99999999999999999999", " 1"}) {
    EXPECT_EQ(PidOfDirectoryName(name), std::nullopt) << name;
  }
}

}  // namespace
