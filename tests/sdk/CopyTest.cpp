// Tests the functions for programs that copy reports: appending records byte for byte, confirming the header in the
// file, and checking whether another program has changed the report.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "sdk/Writer.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using testing::HasSubstr;
using Views = std::vector<std::string_view>;

class SdkCopies : public testing::Test {
 protected:
  void MakeCopy() { ASSERT_FALSE(writer_.Open(files_.Base(), 3).Failed()); }
  [[nodiscard]] Error Copy(const Views& records) { return writer_.AppendCopies(records); }

  // The record of this age, or "no".
  std::string Back(std::uint32_t age) {
    std::string record;
    return writer_.ReadBack(age, record).Failed() ? "no" : record;
  }

  StoreFiles files_;
  Writer writer_;
};

TEST_F(SdkCopies, RecordsComeBackByteForByteAndByAge) {
  MakeCopy();
  EXPECT_EQ(Back(0), "no");
  ASSERT_FALSE(Copy({"a\r\n", "b\n", "cut at a NUL", ""}).Failed());
  EXPECT_EQ(Back(0), "");
  EXPECT_EQ(Back(1), "cut at a NUL");
  EXPECT_EQ(Back(2), "b\n");
  EXPECT_EQ(Back(3), "no") << "the ring keeps three";
  writer_.Close();
  MakeCopy();
  EXPECT_EQ(Back(1), "cut at a NUL");
  EXPECT_EQ(writer_.RecordCount(), 4U);
}

TEST_F(SdkCopies, WhatNoReaderReturnsIsRefusedAndNothingIsWritten) {
  MakeCopy();
  ASSERT_FALSE(Copy({"a\r\n"}).Failed());
  const std::string before = files_.IndexBytes() + files_.DataBytes();
  for (const std::string_view bad :
       {std::string_view("two\nlines\r\n"), std::string_view("a\0b", 3), std::string_view("\xFFz")}) {
    const Error error = Copy({"good\r\n", bad});
    EXPECT_EQ(error.code, ErrorCode::kBadText);
    EXPECT_EQ(error.record, 1U);
    EXPECT_EQ(files_.IndexBytes() + files_.DataBytes(), before);
  }
}

// The last write of a batch is that of the header. If it fails, the records are stored, but not yet counted in the
// file.
TEST_F(SdkCopies, ConfirmWritesAHeaderThatAnAppendCouldNotWrite) {
  MakeCopy();
  int writes = 0;
  {
    const CountedCalls counter(FileCall::kAnyWriteAt);
    ASSERT_FALSE(Copy({"a\r\n"}).Failed());
    writes = counter.Calls();
  }
  const std::string header = files_.IndexBytes().substr(0, 24);
  {
    const FailingCall fault({.call = FileCall::kAnyWriteAt, .nth = writes, .times = kAlways, .error = ENOSPC});
    EXPECT_FALSE(Copy({"b\r\n"}).Failed());
    EXPECT_TRUE(fault.HasFailed());
    EXPECT_EQ(files_.IndexBytes().substr(0, 24), header);
    const Error error = writer_.Confirm();
    EXPECT_EQ(error.code, ErrorCode::kSystem);
    EXPECT_EQ(error.system_error, ENOSPC);
  }
  EXPECT_FALSE(writer_.Confirm().Failed());
  EXPECT_NE(files_.IndexBytes().substr(0, 24), header);
  EXPECT_EQ(Back(0), "b\r\n");
}

TEST_F(SdkCopies, ChangesOfOthersAreNoticed) {
  MakeCopy();
  ASSERT_FALSE(Copy({"a\r\n"}).Failed());
  EXPECT_FALSE(writer_.CheckUntouched().Failed());
  {
    CReportFileBase other;
    ASSERT_TRUE(other.Open(files_.Base().c_str(), 3));
    ASSERT_TRUE(other.writeLine("strange"));
  }
  const Error changed = writer_.CheckUntouched();
  EXPECT_EQ(changed.code, ErrorCode::kOtherWriter);
  EXPECT_THAT(changed.text, HasSubstr("was changed by another program"));
  for (const char* const ending : {".ind", ".dat"}) {
    MakeCopy();
    std::filesystem::rename(files_.Base() + ending, files_.Base() + ".away");
    EXPECT_EQ(writer_.CheckUntouched().code, ErrorCode::kNotFound) << ending;
    std::filesystem::copy(files_.Base() + ".away", files_.Base() + ending);
    EXPECT_EQ(writer_.CheckUntouched().code, ErrorCode::kNotFound) << ending << ": another file of the same bytes";
    std::filesystem::rename(files_.Base() + ".away", files_.Base() + ending);
    EXPECT_FALSE(writer_.CheckUntouched().Failed()) << ending;
  }
}

TEST_F(SdkCopies, AWriterThatIsNotOpenRefusesEachOfThem) {
  std::string record = "as before";
  EXPECT_EQ(Copy({"a\r\n"}).code, ErrorCode::kNotOpen);
  EXPECT_EQ(writer_.Confirm().code, ErrorCode::kNotOpen);
  EXPECT_EQ(writer_.CheckUntouched().code, ErrorCode::kNotOpen);
  EXPECT_EQ(writer_.ReadBack(0, record).code, ErrorCode::kNotOpen);
  EXPECT_EQ(record, "as before");
}

}  // namespace
}  // namespace qx::test
