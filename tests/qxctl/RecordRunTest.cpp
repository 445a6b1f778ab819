// Compares reading many records at once with readLine for each record, whatever bytes the file has.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "tests/support/Support.h"
#include "tools/qxctl/report/RecordRun.h"
#include "tools/qxctl/store/StoredSlots.h"

namespace qx::ctl {

namespace {

std::vector<std::string> OneByOne(CReportFileBase& store, std::uint32_t slots) {
  std::vector<std::string> records(slots);
  for (std::uint32_t slot = 0; slot < slots; ++slot) EXPECT_TRUE(store.readLine(records[slot], slot));
  return records;
}

std::vector<std::string> InRuns(CReportFileBase& store, std::uint32_t slots) {
  std::vector<std::string> records;
  RecordRun run(store, "r", [&](const std::string& record) {
    records.push_back(record);
    return Status();
  });
  for (std::uint32_t slot = 0; slot < slots;) EXPECT_TRUE(run.Pass(slot, slots - slot, slot).IsOk());
  return records;
}

// Writes a ring that has wrapped. Its texts contain bytes that end a record.
void WriteSpoiltReport(const std::string& path, std::mt19937_64& random, std::uint32_t slots) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path.c_str(), slots));
  for (std::uint32_t i = 0; i < slots + slots / 2; ++i) {
    ASSERT_TRUE(store.writeLine(std::string(random() % 60, static_cast<char>('a' + i % 26)).c_str()));
  }
  store.Close();
  std::string data = test::ReadFile(report::DataFileName(path));
  for (std::uint64_t spoilt = random() % 6; spoilt > 0; --spoilt) {
    data[random() % data.size()] = std::string_view("\n\xFF\0x", 4)[random() % 4];
  }
  test::WriteFile(report::DataFileName(path), data);
}

TEST(RecordRun, RecordsAreThoseThatAreReadOneByOne) {
  const test::TempDir directory;
  std::mt19937_64 random(test::Seed("RecordRun"));
  for (int round = 0; round < 60; ++round) {
    const std::string path = directory.File("r" + std::to_string(round));
    const auto slots = static_cast<std::uint32_t>(1 + random() % 300);
    ASSERT_NO_FATAL_FAILURE(WriteSpoiltReport(path, random, slots));
    CReportFileBase store;
    ASSERT_TRUE(store.OpenRead(path.c_str()));
    ASSERT_EQ(InRuns(store, slots), OneByOne(store, slots));
  }
}

TEST(RecordRun, LongRecordIsReadAlone) {
  const test::TempDir directory;
  const std::string path = directory.File("r");
  const std::vector<std::string> texts = {"a", std::string(300'000, 'b'), "c"};
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path.c_str(), 3));
  for (const std::string& text : texts) ASSERT_TRUE(store.writeLine(text.c_str()));
  EXPECT_EQ(InRuns(store, 3), OneByOne(store, 3));
}

// The file has 64 KiB of data, a hole of 64 KiB, and one page: these are whole blocks of any usual file system.
TEST(StoredSlots, RunEndsWhereTheHoleBegins) {
  const test::TempDir directory;
  const std::string file = directory.File("r.ind");
  constexpr std::size_t kStored = 65536;
  test::WriteFile(file, std::string(kStored, 'x'));
  std::filesystem::resize_file(file, 2 * kStored);
  std::ofstream(file, std::ios::app) << std::string(4096, 'x');
  StoredSlots stored(file);
  constexpr std::uint32_t kFirstInHole = (kStored - 24) / 4;
  constexpr std::uint32_t kFirstAfterHole = (2 * kStored - 24) / 4;
  EXPECT_EQ(stored.NextFrom(7, 30000), 7);
  EXPECT_EQ(stored.EndFrom(7, 30000), kFirstInHole);
  EXPECT_EQ(stored.EndFrom(7, 100), 100);
  EXPECT_EQ(stored.NextFrom(kFirstInHole, 40000), kFirstAfterHole);
}

TEST(RecordRun, FailureOfTheTakerEndsTheRun) {
  const test::TempDir directory;
  const std::string path = directory.File("r");
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path.c_str(), 9));
  for (int i = 0; i < 9; ++i) ASSERT_TRUE(store.writeLine("x"));
  int taken = 0;
  RecordRun run(store, path,
                [&](const std::string&) { return ++taken == 4 ? Status(ExitCode::kIo, "full") : Status(); });
  std::uint32_t passed = 0;
  EXPECT_EQ(run.Pass(0, 9, passed).Code(), ExitCode::kIo);
  EXPECT_EQ(taken, 4);
}

}  // namespace

}  // namespace qx::ctl
