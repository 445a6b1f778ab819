// Tests the memory that a sender needs, and the number of reports that it follows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/qxrelay/SendingHost.h"

namespace {

using qx::relay::SendContext;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using RelaySenderLimits = qx::test::SendingHost;

TEST_F(RelaySenderLimits, ReportsOverTheLimitAreNotSentAndAFindingSaysSo) {
  settings_.reports_max = 2;
  for (const char* const report : {"a", "b", "c", "d"}) Append(1, report);
  Start();
  Run(100);
  EXPECT_EQ(sender_->Reports(), 2U);
  EXPECT_EQ(Received("b").records.size(), 1U);
  EXPECT_THAT(Received("c").records, IsEmpty());
  EXPECT_THAT(sender_->Findings(), ElementsAre("2 reports are not sent: reports_max is 2"));
  Run(2500);
  EXPECT_EQ(Lines("reports are not sent"), 1U);
}

// After a time without servers, every report has a full message to send.
TEST_F(RelaySenderLimits, MessagesInFlightAreBoundedAndEverythingArrives) {
  batch_ = 256 * 1024;
  constexpr int kReports = 24;
  for (int i = 0; i < kReports; ++i) Append(1, "r" + std::to_string(i));
  Start();
  context_->times.poll = 100;  // each poll reads the newest record, a long one
  Run(200);
  for (int i = 0; i < kReports; ++i) Append(1, "r" + std::to_string(i), 500'000);
  now_ += 1000;  // so that all reports are due
  std::size_t kept = 0;
  for (int i = 0; i < 100; ++i) {
    Run(3);
    kept = std::max(kept, context_->kept_bytes);
  }
  EXPECT_GT(kept, SendContext::kKeptBytesMax) << "the limit was met";
  EXPECT_LT(kept, SendContext::kKeptBytesMax + 600'000);
  for (int i = 0; i < kReports; ++i) EXPECT_EQ(Received("r" + std::to_string(i)).records.size(), 2U) << i;
  EXPECT_EQ(context_->kept_bytes, 0U);
}

TEST_F(RelaySenderLimits, NamesFilesInMemoryAreBounded) {
  constexpr int kReports = 36;
  const std::string names(500'000, 'n');
  for (int i = 0; i < kReports; ++i) {
    Append(1, "r" + std::to_string(i));
    qx::test::WriteFile(Path("r" + std::to_string(i)) + ".names", names);
  }
  Start();
  Run(100);
  ASSERT_EQ(sender_->Findings().size(), 1U);
  EXPECT_THAT(sender_->Findings()[0],
              HasSubstr("changes of 3 names files are not sent: all of them together may have"));
}

}  // namespace
