// Tests reading runs of records from stores that a writer changes before, between and after the reads.
#include "tools/qxrelay/send/RunReader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "reportfile/tools/RecordOverlap.h"
#include "sdk/Writer.h"
#include "tests/support/Support.h"

namespace {

using qx::relay::FirstRange;
using qx::relay::RecordRange;
using qx::relay::RecordRun;
using qx::relay::RunReader;
using qx::report::IndexHeader;

constexpr std::size_t kBytesMax = 64 * 1024;

std::vector<std::string> TextsOf(const RecordRun& run) {
  std::vector<std::string> texts;
  std::size_t at = 0;
  for (const std::uint32_t length : run.lengths) {
    texts.push_back(run.texts.substr(at, length));
    at += length;
  }
  EXPECT_EQ(at, run.texts.size());
  return texts;
}

using Words = std::vector<std::string>;

class RelayRunReader : public testing::Test {
 protected:
  // Appends records. It does not use qx::Writer, which searches for other writers at each open.
  void Append(std::uint64_t count, std::size_t length = 0) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(path_.c_str(), slots_));
    for (std::uint64_t i = 0; i < count; ++i) {
      ASSERT_TRUE(store.writeLine(("r" + std::to_string(next_++) + std::string(length, 'x')).c_str()));
    }
  }

  RecordRun Read(std::uint64_t first, std::size_t bytes_max = kBytesMax) {
    RunReader reader(path_);
    EXPECT_EQ(reader.Open(), 0);
    return reader.Read(FirstRange(reader.View().header), first, bytes_max);
  }

  IndexHeader Header() {
    const std::string bytes = qx::test::ReadFile(path_ + ".ind");
    IndexHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
  }

  void SetHeader(const IndexHeader& header) {
    std::string bytes = qx::test::ReadFile(path_ + ".ind");
    std::memcpy(bytes.data(), &header, sizeof header);
    qx::test::WriteFile(path_ + ".ind", bytes);
  }

  qx::test::TempDir dir_;
  std::string path_ = dir_.File("load");
  std::uint32_t slots_ = 10;
  std::uint64_t next_ = 0;
};

TEST_F(RelayRunReader, RecordsComeByteForByteFromTheRequestedNumber) {
  Append(5);
  const RecordRun run = Read(2);
  EXPECT_EQ(run.first, 2U);
  EXPECT_EQ(TextsOf(run), (Words{"r2\r\n", "r3\r\n", "r4\r\n"}));
  EXPECT_EQ(LastText(run), "r4\r\n");
  EXPECT_EQ(run.Next(), 5U);
}

TEST_F(RelayRunReader, TheOldestSlotOfAFullRingIsUnsafe) {
  Append(10);
  RunReader reader(path_);
  ASSERT_EQ(reader.Open(), 0);
  EXPECT_EQ(reader.View().unsafe, 1U);
  EXPECT_EQ(reader.Read({0, 10}, 0, kBytesMax).first, 1U);
}

TEST_F(RelayRunReader, ARunEndsAtTheLimitAndAtTheEndOfTheRing) {
  Append(25);
  EXPECT_EQ(TextsOf(Read(16, 10)), (Words{"r16\r\n", "r17\r\n"}));
  EXPECT_EQ(TextsOf(Read(16, 1)), (Words{"r16\r\n"}));
  EXPECT_EQ(TextsOf(Read(16)), (Words{"r16\r\n", "r17\r\n", "r18\r\n", "r19\r\n"})) << "the data file restarts at 20";
  EXPECT_EQ(TextsOf(Read(20)), (Words{"r20\r\n", "r21\r\n", "r22\r\n", "r23\r\n", "r24\r\n"}));
}

TEST_F(RelayRunReader, EveryNumberOfEveryRingIsReadWhole) {
  for (slots_ = 1; slots_ <= 4; ++slots_) {
    path_ = dir_.File("ring" + std::to_string(slots_));
    next_ = 0;
    for (int i = 0; i < 12; ++i) {
      Append(1, static_cast<std::size_t>(i % 3));
      RunReader reader(path_);
      ASSERT_EQ(reader.Open(), 0);
      const RecordRange range = FirstRange(reader.View().header);
      const RecordRange sendable = reader.View().Sendable(range);
      for (std::uint64_t number = sendable.oldest; number < sendable.end;) {
        const RecordRun run = reader.Read(range, number, kBytesMax);
        ASSERT_EQ(run.first, number);
        ASSERT_GT(run.Next(), number) << slots_ << " slots, after " << next_;
        number += run.unreadable;
        for (const std::string& text : TextsOf(run)) {
          ASSERT_EQ(text.substr(0, text.find_first_of("x\r")), "r" + std::to_string(number++));
        }
        number = run.Next();
      }
    }
  }
}

TEST_F(RelayRunReader, OddRecordsComeAsReadersSeeThem) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path_.c_str(), 10));
  for (const char* const text : {"a\nb", "", "c\xFFz", "plain"}) ASSERT_TRUE(store.writeLine(text));
  store.Close();
  EXPECT_EQ(TextsOf(Read(0)), (Words{"a\n", "\r\n", "c\xFF", "plain\r\n"}));
}

TEST_F(RelayRunReader, RecordsThatTheRingReplacedMeanwhileAreSkipped) {
  Append(10);
  RunReader reader(path_);
  ASSERT_EQ(reader.Open(), 0);
  Append(3);
  const RecordRun run = reader.Read({0, 10}, 1, kBytesMax);
  EXPECT_EQ(run.first, 4U);
  EXPECT_EQ(run.lengths.size(), 0U) << "the slots of the first three have newer records";
  EXPECT_EQ(TextsOf(reader.Read({0, 10}, 4, kBytesMax)).front(), "r4\r\n");
  Append(20);
  EXPECT_EQ(reader.Read({0, 10}, 4, kBytesMax).lengths.size(), 0U);
}

// The writer of a batch has replaced three slots, but not yet the header.
TEST_F(RelayRunReader, SlotsOfABatchInFlightAreUnsafe) {
  Append(12);
  const IndexHeader before = Header();
  Append(3);
  SetHeader(before);
  RunReader reader(path_);
  ASSERT_EQ(reader.Open(), 0);
  EXPECT_EQ(reader.View().unsafe, 3U);
  const RecordRun run = reader.Read({2, 12}, 3, kBytesMax);
  EXPECT_EQ(run.first, 5U);
  EXPECT_EQ(run.lengths.size(), 0U);
  EXPECT_EQ(TextsOf(reader.Read({2, 12}, 5, kBytesMax)).front(), "r5\r\n");
}

// After the restart of the data file, longer records overwrite text that is still indexed.
TEST_F(RelayRunReader, OverwrittenTextIsUnreadableAndTheRestIsRead) {
  slots_ = 4;
  Append(8);
  Append(1, 18);  // over the texts of r0 to r4 and the beginning of r5
  const RecordRun run = Read(6);
  EXPECT_EQ(run.first, 6U);
  EXPECT_EQ(run.unreadable, 1U) << "the marker is on r6";
  EXPECT_EQ(run.lengths.size(), 0U);
  EXPECT_EQ(TextsOf(Read(7)), Words{"r7\r\n"});
}

// The texts of a batch are written, but not its slots and the header. The records under these texts are not lost yet,
// but must not be sent.
TEST_F(RelayRunReader, TextUnderAnUncountedBatchIsNotSent) {
  slots_ = 4;
  Append(8);
  const std::string before = qx::test::ReadFile(path_ + ".ind");
  Append(1, 18);
  qx::test::WriteFile(path_ + ".ind", before);
  const RecordRun run = Read(6);
  EXPECT_EQ(run.first, 6U);
  EXPECT_EQ(run.unreadable, 0U);
  EXPECT_EQ(run.lengths.size(), 0U);
}

TEST_F(RelayRunReader, AStoreThatIsStartedOverGivesNothing) {
  Append(8);
  RunReader reader(path_);
  ASSERT_EQ(reader.Open(), 0);
  qx::test::WriteFile(path_ + ".ind", "");
  qx::test::WriteFile(path_ + ".dat", "");
  const RecordRun run = reader.Read({0, 8}, 2, kBytesMax);
  EXPECT_EQ(run.first, 2U);
  EXPECT_TRUE(run.lengths.empty());
}

TEST_F(RelayRunReader, DamagedHeadersAreRefused) {
  Append(8);
  const IndexHeader good = Header();
  for (int field = 0; field < 3; ++field) {
    IndexHeader header = good;
    if (field == 0) header.highestIndex = header.maxRecord = 1'000'000'000;
    if (field == 1) header.maxRecord = 0;
    if (field == 2) header.oldestIndex = 10;
    SetHeader(header);
    EXPECT_EQ(RunReader(path_).Open(), EBADMSG) << field;
  }
  EXPECT_EQ(RunReader(dir_.File("none")).Open(), ENOENT);
}

TEST_F(RelayRunReader, HashesAreThoseOfTheRecords) {
  Append(3);
  RunReader reader(path_);
  ASSERT_EQ(reader.Open(), 0);
  EXPECT_EQ(reader.Hashes(1, 2),
            (std::vector<std::uint64_t>{qx::report::RecordHash("r1\r\n"), qx::report::RecordHash("r2\r\n")}));
}

// Each record contains its own number, so a torn or misplaced record is noticed.
TEST(RelayRunReaderThreads, NothingTornIsReadUnderAWriterOfBatches) {
  const qx::test::TempDir dir;
  const std::string path = dir.File("load");
  std::atomic<bool> is_done = false;
  std::thread writer([&] {
    qx::Writer store;
    EXPECT_FALSE(store.Open(path, 300).Failed());
    std::uint64_t next = 0;
    std::vector<std::string> batch;
    while (!is_done) {
      batch.clear();
      for (std::uint64_t i = 0; i < 1 + next % 37; ++i, ++next) {
        batch.push_back(std::to_string(next) + ":" + std::string(next % 90, 'x') + ":" + std::to_string(next));
      }
      EXPECT_FALSE(store.Append(std::span<const std::string>(batch)).Failed());
    }
  });
  std::uint64_t next = 0;
  std::uint64_t read = 0;
  constexpr std::uint64_t kReadMin = 1000;
  const auto begin = std::chrono::steady_clock::now();
  const auto has_time = [&] {  // a busy machine needs longer for enough records
    const auto time = std::chrono::steady_clock::now() - begin;
    return time < std::chrono::milliseconds(300) || (read < kReadMin && time < std::chrono::seconds(30));
  };
  while (has_time()) {
    RunReader reader(path);
    if (reader.Open() != 0) continue;
    const RecordRange range = FirstRange(reader.View().header);
    next = std::max(next, reader.View().Sendable(range).oldest);
    if (next >= range.end) continue;
    const RecordRun run = reader.Read(range, next, kBytesMax);
    std::uint64_t number = run.first + run.unreadable;
    for (const std::string& text : TextsOf(run)) {
      const std::string expected =
          std::to_string(number) + ":" + std::string(number % 90, 'x') + ":" + std::to_string(number) + "\r\n";
      ASSERT_EQ(text, expected);
      ++number;
      ++read;
    }
    next = number;
  }
  is_done = true;
  writer.join();
  EXPECT_GE(read, kReadMin);
}

}  // namespace
