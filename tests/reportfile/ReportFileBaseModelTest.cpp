// Compares random operations on a store with the plain model of its ring: the records and the bytes of the files must
// be equal.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/ReportRing.h"

namespace qx::test {
namespace {

class ReportFileBaseModel : public testing::Test {
 protected:
  std::uint32_t Below(std::size_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  std::string Text(std::size_t size) {
    std::string text(size, '\0');
    for (char& byte : text) byte = static_cast<char>(' ' + Below(95));
    return text;
  }

  void ExpectHolds(CReportFileBase& store, const ReportRing& model) {
    std::string expected;
    for (std::size_t age = 0; age < model.ring.size(); ++age) expected += model.OfAge(age).line;
    std::string read;
    for (const std::string& record : ReadAll(store)) read += record;
    ASSERT_EQ(store.header().highestIndex, model.ring.size());
    ASSERT_EQ(read, expected);
    ASSERT_EQ(TakeInAgeOrder(store), expected);
  }

  // Reads the records as a transfer does: from the oldest slot to the end of the ring, then from its beginning.
  static std::string TakeInAgeOrder(CReportFileBase& store) {
    const report::IndexHeader& header = store.header();
    const std::uint32_t oldest = header.oldestIndex;
    report::RecordReader reader(store);
    std::string taken;
    (void)reader.Take(oldest, {header.highestIndex - oldest, std::size_t{1} << 30}, &taken);
    (void)reader.Take(0, {oldest, std::size_t{1} << 30}, &taken);
    return taken;
  }

  std::mt19937_64 random_{Seed("ReportFileBaseModel")};
};

// Records of one length never overwrite one another, so the ring holds exactly the newest ones.
TEST_F(ReportFileBaseModel, RingHoldsTheNewestRecords) {
  for (const std::uint32_t slots : {2U, 3U, 7U, 50U}) {
    const StoreFiles files;
    ReportRing model;
    model.writer.maxRecord = slots;
    CReportFileBase writer;
    ASSERT_TRUE(writer.Open(files.Path(), slots));
    for (int step = 0; step < 500; ++step) {
      const std::string text = Text(20);
      ASSERT_TRUE(writer.writeLine(text.c_str()));
      model.Append(text);
      ASSERT_TRUE(Below(10) != 0 || writer.Open(files.Path(), 1 + Below(99)));
      if (Below(4) != 0) continue;
      CReportFileBase reader;
      ASSERT_TRUE(reader.OpenRead(files.Path()));
      ASSERT_NO_FATAL_FAILURE(ExpectHolds(reader, model)) << slots << " slots, step " << step;
    }
  }
}

TEST_F(ReportFileBaseModel, FilesAreThoseOfThePlainModel) {
  for (int life = 0; life < 60; ++life) {
    const StoreFiles files;
    CReportFileBase store;
    ReportRing model;
    const std::uint32_t slots = Below(30);
    ASSERT_TRUE(store.Open(files.Path(), slots));
    model.writer.maxRecord = slots != 0 ? slots : 1073741823;
    const std::uint32_t longest = 1 + (1U << Below(14));
    for (std::uint32_t step = Below(150); step > 0; --step) {
      const std::string text = Text(Below(longest));
      ASSERT_TRUE(store.writeLine(text.c_str()));
      model.Append(text);
      ASSERT_EQ(store.header(), model.writer);
      if (Below(12) != 0) continue;
      ASSERT_TRUE(store.Open(files.Path(), 5));
      model.writer = model.ReadHeader();
      ASSERT_EQ(store.header(), model.writer);
    }
    ASSERT_EQ(files.IndexBytes(), model.index);
    ASSERT_EQ(files.DataBytes(), model.data);
  }
}

}  // namespace
}  // namespace qx::test
