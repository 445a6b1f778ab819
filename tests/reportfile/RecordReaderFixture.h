// A store, a reader of it, and a plain form of Take, for the tests of RecordReader.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/reportfile/TakeOneByOne.h"

namespace qx::report {

inline void PrintTo(const TakenRecords& taken, std::ostream* out) {
  *out << "{" << taken.count << ", " << static_cast<int>(taken.end) << "}";
}

inline bool operator==(const TakenRecords& a, const TakenRecords& b) { return a.count == b.count && a.end == b.end; }

}  // namespace qx::report

namespace qx::test {

using report::RecordReader;
using report::TakeEnd;
using report::TakenRecords;

inline constexpr std::size_t kNoLimit = std::size_t{1} << 40;

class RecordReaderTest : public testing::Test {
 protected:
  void Open(const report::IndexHeader& header, const std::vector<std::uint32_t>& slots, std::string_view data) {
    files_.Make(header, slots, data);
    ASSERT_TRUE(store_.OpenRead(files_.Path()));
    reader_.Drop();
  }

  // All given slots are in use.
  void Open(const std::vector<std::uint32_t>& slots, std::string_view data) {
    Open(StoreFiles::FullRing(static_cast<std::uint32_t>(slots.size())), slots, data);
  }

  void OpenAppended(std::uint32_t count, std::size_t text_bytes) {
    CReportFileBase writer;
    ASSERT_TRUE(writer.Open(files_.Path(), count));
    for (std::uint32_t i = 0; i < count; ++i) {
      ASSERT_TRUE(writer.writeLine(std::string(text_bytes, static_cast<char>('a' + i % 26)).c_str()));
    }
    ASSERT_TRUE(store_.OpenRead(files_.Path()));
  }

  std::string TakeAll() {
    std::string out;
    EXPECT_EQ(reader_.Take(0, {store_.header().highestIndex, kNoLimit}, &out).end, TakeEnd::kCountReached);
    return out;
  }

  void ExpectTakeAgrees(std::uint32_t first, std::uint32_t count_max, std::size_t gathered_max, std::string out = {}) {
    std::string expected = out;
    const TakenRecords plain = TakeOneByOne(store_, first, count_max, gathered_max, &expected);
    EXPECT_EQ(reader_.Take(first, {count_max, gathered_max}, &out), plain);
    EXPECT_TRUE(out == expected) << "the taken texts differ";
    EXPECT_TRUE(reader_.MayHaveTakenBracket() || out.find(']') == std::string::npos);
  }

  StoreFiles files_;
  CReportFileBase store_;
  RecordReader reader_{store_};
};

}  // namespace qx::test
