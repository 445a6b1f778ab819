// Rebuilds the worked example of docs/report-store.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"

namespace qx::test {
namespace {

TEST(ReportStorePage, SevenRecordsInThreeSlots) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 3));
  for (const char* text : {"rec1", "rec2", "rec3", "rec4", "rec5", "rec6", "rec7"}) ASSERT_TRUE(store.writeLine(text));
  EXPECT_EQ(HexDump(files.IndexBytes()), DocExample("report-store.md", "index-file"));
  EXPECT_EQ(HexDump(files.DataBytes()), DocExample("report-store.md", "data-file"));
  EXPECT_THAT(ReadAll(files), testing::ElementsAre("rec5\r\n", "rec6\r\n", "rec7\r\n"));
}

// A writer that was killed between slot and header, as the page describes it.
TEST(ReportStorePage, NewRecordIsInTheOldestSlotUntilTheHeaderIsWritten) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 3));
  for (const char* text : {"rec1", "rec2", "rec3"}) ASSERT_TRUE(store.writeLine(text));
  const std::string header = files.IndexBytes().substr(0, sizeof(report::IndexHeader));
  ASSERT_TRUE(store.writeLine("rec4"));
  WriteFile(files.IndexPath(), header + files.IndexBytes().substr(header.size()));
  EXPECT_THAT(ReadAll(files), testing::ElementsAre("rec4\r\n", "rec2\r\n", "rec3\r\n"));
}

}  // namespace
}  // namespace qx::test
