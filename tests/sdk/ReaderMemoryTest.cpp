// Tests the allocations of the reader, and its results when there is no memory.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "sdk/Reader.h"
#include "sdk/Writer.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/EachAllocation.h"

namespace qx::test {
namespace {

class SdkReaderMemory : public testing::Test {
 protected:
  void MakeReport(std::uint32_t records) {
    Writer writer;
    ASSERT_FALSE(writer.Open(files_.Base(), records).Failed());
    ASSERT_FALSE(writer.Append(std::vector<std::string>(records, std::string(50, 'x'))).Failed());
  }

  StoreFiles files_;
};

TEST_F(SdkReaderMemory, LoopAllocatesNothingForARecord) {
  MakeReport(20000);
  Reader reader;
  ASSERT_FALSE(reader.Open(files_.Base()).Failed());
  std::size_t bytes = 0;
  const FailingAllocation counter({.nth = 1000000});  // never reached
  const bool is_refreshed = !reader.Refresh().Failed();
  for (const RecordView& record : reader) bytes += record.text.size();
  const long allocations = counter.Allocations();
  EXPECT_TRUE(is_refreshed);
  EXPECT_EQ(bytes, 1000000U);
  EXPECT_LT(allocations, 20);
}

TEST_F(SdkReaderMemory, EachFailingAllocationEndsWithAnError) {
  MakeReport(20);
  struct Result {
    ErrorCode code;
    std::size_t records;
  };
  const auto read = [this]() -> Result {
    Reader reader;
    if (const Error error = reader.Open(files_.Base()); error.Failed()) return {error.code, 0};
    std::size_t records = 0;
    for (const RecordView& record : reader) records += record.IsWhole() ? 1 : 0;
    return {reader.LastError().code, records};
  };
  WithEachAllocationFailing<Result>(
      [] {}, read,
      [](const std::optional<Result>& result) {
        ASSERT_TRUE(result.has_value()) << "an exception left the reader";
        const bool is_all = result->code == ErrorCode::kNone && result->records == 20;
        EXPECT_TRUE(is_all || (result->code == ErrorCode::kNoMemory && result->records == 0));
      });
}

}  // namespace
}  // namespace qx::test
