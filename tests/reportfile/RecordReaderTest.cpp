// Compares the reads of RecordReader, which go through windows, with readLine for each slot.
#include "reportfile/RecordReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/RecordReaderFixture.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/ReportRing.h"

namespace qx::test {
namespace {

using namespace std::string_literals;

constexpr std::size_t kWindowBytes = std::size_t{64} * 1024;
constexpr std::uint32_t kWindowSlots = 8192;

TEST_F(RecordReaderTest, TakesARunOfRecordsWhole) {
  Open({0, 3, 7}, "a\r\nbb\r\nc\r\n===>\r\n");
  EXPECT_EQ(TakeAll(), "a\r\nbb\r\nc\r\n");
}

TEST_F(RecordReaderTest, AppendsToTheCallersText) {
  Open({0, 3}, "a\r\nb\r\n");
  std::string out = "kept ";
  EXPECT_EQ(reader_.Take(0, {2, kNoLimit}, &out), (TakenRecords{2, TakeEnd::kCountReached}));
  EXPECT_EQ(out, "kept a\r\nb\r\n");
}

TEST_F(RecordReaderTest, RunWithALineFeedInsideARecordIsNotTakenWhole) {
  Open({0, 5, 14}, "abc\r\none\ntwo\r\nxyz\r\n");
  EXPECT_EQ(TakeAll(), "abc\r\none\nxyz\r\n");
}

TEST_F(RecordReaderTest, RunWithAByteFFInsideARecordIsNotTakenWhole) {
  Open({0, 5, 14}, "abc\r\none\xFFtwo\r\nxyz\r\n");
  EXPECT_EQ(TakeAll(), "abc\r\none\xFFxyz\r\n");
}

TEST_F(RecordReaderTest, RunWithANulInsideARecordIsNotTakenWhole) {
  Open({0, 5, 14}, "abc\r\none\0two\r\nxyz\r\n"s);
  EXPECT_EQ(TakeAll(), "abc\r\nonexyz\r\n");
}

TEST_F(RecordReaderTest, RecordThatEndsAfterTheNextSlotIsTakenToItsEnd) {
  Open({0, 2, 5}, "abcde\r\nxyz\r\n");
  EXPECT_EQ(TakeAll(), "abcde\r\ncde\r\n\r\n");
}

TEST_F(RecordReaderTest, OverlappingRecordsWhoseTextEndsAddUpAreNotTakenWhole) {
  // There are two text ends between the slots of two records, but both are in the second one.
  Open({0, 2, 5}, "abc\n\nxyz\n");
  EXPECT_EQ(TakeAll(), "abc\nc\nxyz\n");
}

TEST_F(RecordReaderTest, SlotsInAnyOrderAreFollowed) {
  Open({8, 0, 4, 4, 0}, "aa\r\nbb\r\ncc\r\n");
  EXPECT_EQ(TakeAll(), "cc\r\naa\r\nbb\r\nbb\r\naa\r\n");
}

TEST_F(RecordReaderTest, DataFileThatEndsEarlyEndsItsRecordsWithTheByteFF) {
  Open({0, 4, 8, 12, 99}, "aa\r\nbb");
  EXPECT_EQ(TakeAll(), "aa\r\nbb\xFF\xFF\xFF\xFF");
}

TEST_F(RecordReaderTest, IndexFileThatEndsEarlyReadsAsOffsetZero) {
  Open(StoreFiles::FullRing(4), {4, 8}, "aa\r\nbb\r\ncc\r\n");
  EXPECT_EQ(TakeAll(), "bb\r\ncc\r\naa\r\naa\r\n");
}

TEST_F(RecordReaderTest, TakeStopsAfterTheLastSlotInUse) {
  Open({0, 3}, "a\r\nb\r\n");
  std::string out;
  EXPECT_EQ(reader_.Take(0, {5, kNoLimit}, &out), (TakenRecords{2, TakeEnd::kReadFailed}));
  EXPECT_EQ(out, "a\r\nb\r\n");
  EXPECT_EQ(reader_.Take(2, {1, kNoLimit}, &out), (TakenRecords{0, TakeEnd::kReadFailed}));
  EXPECT_EQ(reader_.Take(0xFFFFFFFF, {0xFFFFFFFF, kNoLimit}, &out), (TakenRecords{0, TakeEnd::kReadFailed}));
  EXPECT_EQ(out, "a\r\nb\r\n");
}

TEST_F(RecordReaderTest, TakeOfZeroRecordsReachesItsCount) {
  Open({0, 3}, "a\r\nb\r\n");
  std::string out = "kept";
  EXPECT_EQ(reader_.Take(0, {0, 0}, &out), (TakenRecords{0, TakeEnd::kCountReached}));
  EXPECT_EQ(reader_.Take(9, {0, 0}, &out), (TakenRecords{0, TakeEnd::kCountReached}));
  EXPECT_EQ(out, "kept");
}

TEST_F(RecordReaderTest, GatheredTextStaysBelowItsLimit) {
  Open({0, 4, 8, 12}, "aa\r\nbb\r\ncc\r\ndd\r\n");
  for (std::size_t limit = 0; limit <= 18; ++limit) {
    std::string out;
    const std::uint32_t fitting = limit == 0 ? 0 : static_cast<std::uint32_t>((limit - 1) / 4);
    const TakeEnd end = fitting >= 4 ? TakeEnd::kCountReached : TakeEnd::kChunkFull;
    EXPECT_EQ(reader_.Take(0, {4, limit}, &out), (TakenRecords{std::min(fitting, 4U), end})) << limit;
    EXPECT_EQ(out.size(), std::min<std::size_t>(fitting, 4) * 4);
  }
}

TEST_F(RecordReaderTest, LimitBelowTheCallersTextTakesNothing) {
  Open({0}, "\0"s);
  std::string out = "held";
  EXPECT_EQ(reader_.Take(0, {1, 4}, &out), (TakenRecords{0, TakeEnd::kChunkFull}));
  EXPECT_EQ(reader_.Take(0, {1, 3}, &out), (TakenRecords{0, TakeEnd::kChunkFull}));
  EXPECT_EQ(reader_.Take(0, {1, 5}, &out), (TakenRecords{1, TakeEnd::kCountReached}));
  EXPECT_EQ(out, "held");
}

TEST_F(RecordReaderTest, SlotNotInUseComesBeforeARecordThatDoesNotFit) {
  Open({0}, "a\r\n");
  std::string out;
  EXPECT_EQ(reader_.Take(1, {1, 0}, &out), (TakenRecords{0, TakeEnd::kReadFailed}));
}

TEST_F(RecordReaderTest, ClosedStoreReturnsNothing) {
  Open({0, 3}, "a\r\nb\r\n");
  store_.Close();
  std::string out = "kept";
  bool too_long = true;
  EXPECT_EQ(reader_.Take(0, {2, kNoLimit}, &out), (TakenRecords{0, TakeEnd::kReadFailed}));
  EXPECT_FALSE(reader_.Read(0, kNoLimit, &out, &too_long));
  EXPECT_FALSE(too_long);
  EXPECT_EQ(out, "kept");
}

TEST_F(RecordReaderTest, ReadAppendsOneRecord) {
  Open({4, 0}, "aa\r\nbb\r\n");
  std::string out = "kept ";
  bool too_long = true;
  EXPECT_TRUE(reader_.Read(0, kNoLimit, &out, &too_long));
  EXPECT_FALSE(too_long);
  EXPECT_TRUE(reader_.Read(1, 5, &out, &too_long));
  EXPECT_FALSE(too_long);
  EXPECT_EQ(out, "kept bb\r\naa\r\n");
}

TEST_F(RecordReaderTest, ReadOfARecordThatReachesItsLimitReturnsNothing) {
  Open({4, 0}, "aa\r\nbb\r\n");
  std::string out = "kept";
  for (std::size_t limit = 0; limit <= 4; ++limit) {
    bool too_long = false;
    EXPECT_TRUE(reader_.Read(0, limit, &out, &too_long));
    EXPECT_TRUE(too_long);
    EXPECT_EQ(out, "kept");
  }
}

TEST_F(RecordReaderTest, ReadOfASlotNotInUseFails) {
  Open({0}, "a\r\n");
  std::string out = "kept";
  bool too_long = true;
  EXPECT_FALSE(reader_.Read(1, 0, &out, &too_long));
  EXPECT_FALSE(too_long);
  EXPECT_EQ(out, "kept");
}

TEST_F(RecordReaderTest, RecordWithoutAnEndIsReadNoFurtherThanItsLimit) {
  Open({0}, "x");
  const std::string block(std::size_t{1} << 20, 'x');
  WriteFile(files_.DataPath(), block + block + block + block);
  const CountedCalls reads(FileCall::kReadAt);
  std::string out;
  EXPECT_EQ(reader_.Take(0, {1, kWindowBytes * 2}, &out), (TakenRecords{0, TakeEnd::kChunkFull}));
  EXPECT_EQ(out, "");
  EXPECT_LE(reads.Calls(), 6);  // one read of slots, and the data up to the limit
  EXPECT_LE(out.capacity(), kWindowBytes * 5);
}

TEST_F(RecordReaderTest, BracketInATakenRecordIsReported) {
  const std::string filler(5000, 'x');
  for (const bool in_a_long_run : {false, true}) {
    const std::string first = in_a_long_run ? filler : "a";
    const auto second = static_cast<std::uint32_t>(first.size() + 2);
    Open({0, second, second + 4}, first + "\r\nb]\r\nc\r\n");
    RecordReader reader(store_);
    std::string out;
    EXPECT_EQ(reader.Take(0, {1, kNoLimit}, &out), (TakenRecords{1, TakeEnd::kCountReached}));
    EXPECT_FALSE(reader.MayHaveTakenBracket());
    EXPECT_EQ(reader.Take(0, {3, kNoLimit}, &out), (TakenRecords{3, TakeEnd::kCountReached}));
    EXPECT_TRUE(reader.MayHaveTakenBracket());
  }
}

// A long run has an exception near its end. The part that was read before must not be in the caller's text.
TEST_F(RecordReaderTest, LongRunWithAnExceptionIsTakenRecordByRecord) {
  const std::string line = std::string(98, 'x') + "\r\n";
  std::string data;
  std::vector<std::uint32_t> slots;
  for (std::uint32_t i = 0; i < 2000; ++i, data += line) slots.push_back(100 * i);
  data[150000] = '\0';
  data[199950] = '\n';
  Open(slots, data);
  for (const std::string held : {"", "held"}) ExpectTakeAgrees(0, 2000, kNoLimit, held);
  ExpectTakeAgrees(3, 1990, 100000, "held");
}

// A run for a place that the kernel copies to slowly is read through the window, in three parts.
TEST_F(RecordReaderTest, LongRunIsTheSameAtEveryOffsetInAPage) {
  OpenAppended(1500, 98);
  const std::string expected = TakeAll();
  int direct_reads = 0;
  for (const std::size_t ahead : {0U, 1U, 8U, 15U, 16U}) {
    std::string out;
    out.reserve(4096 + expected.size());
    out.resize((ahead - reinterpret_cast<std::uintptr_t>(out.data())) % 4096, 'x');
    const std::size_t before = out.size();
    reader_.Drop();
    const CountedCalls reads(FileCall::kReadAt);
    EXPECT_EQ(reader_.Take(0, {1500, kNoLimit}, &out), (TakenRecords{1500, TakeEnd::kCountReached}));
    EXPECT_TRUE(out.substr(before) == expected) << ahead;
    if (ahead == 0) direct_reads = reads.Calls();
    EXPECT_EQ(reads.Calls(), direct_reads + (ahead == 0 || ahead == 16 ? 0 : 2)) << ahead;
  }
}

TEST_F(RecordReaderTest, WindowsAreKeptUntilDropped) {
  Open({0, 3}, "a\r\nb\r\n");
  EXPECT_EQ(TakeAll(), "a\r\nb\r\n");
  WriteFile(files_.DataPath(), "X\r\nY\r\n");
  EXPECT_EQ(TakeAll(), "a\r\nb\r\n");
  reader_.Drop();
  EXPECT_EQ(TakeAll(), "X\r\nY\r\n");
}

TEST_F(RecordReaderTest, ReopenedStoreIsReadAgainAfterDrop) {
  Open({0, 3}, "a\r\nb\r\n");
  EXPECT_EQ(TakeAll(), "a\r\nb\r\n");
  Open({0}, "other\r\n");
  EXPECT_EQ(TakeAll(), "other\r\n");
}

TEST_F(RecordReaderTest, RunOfShortRecordsNeedsOneReadForEachWindow) {
  OpenAppended(20000, 50);
  const CountedCalls reads(FileCall::kReadAt);
  EXPECT_EQ(TakeAll().size(), 20000U * 52);
  constexpr int kDataReads = 20000 * 52 / static_cast<int>(kWindowBytes) + 1;
  constexpr int kSlotReads = 3;
  constexpr int kSlotChecks = 20000 / 2048 + 2 * kSlotReads;  // 2048 slots at a time, in batches of 256 KiB of text
  // Each window of slots costs one read, and one more for its last record. The 4 are second calls of reads that reach
  // the end of a file: they get 0 bytes.
  EXPECT_LE(reads.Calls(), kDataReads + 2 * kSlotReads + kSlotChecks + 4);
}

TEST_F(RecordReaderTest, RecordsWithLineFeedsDoNotNeedOneReadEach) {
  CReportFileBase writer;
  ASSERT_TRUE(writer.Open(files_.Path(), 5000));
  for (int i = 0; i < 5000; ++i) ASSERT_TRUE(writer.writeLine("first line\nsecond line"));
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  const CountedCalls reads(FileCall::kReadAt);
  EXPECT_EQ(TakeAll().size(), 5000U * 11);
  EXPECT_LE(reads.Calls(), 20);
}

// Billions of slots, which the index file does not have. Each is a record without text.
TEST_F(RecordReaderTest, HeaderThatClaimsBillionsOfSlotsIsAnsweredAtOnce) {
  Open({.maxRecord = 0xFFFFFFFF, .highestIndex = 0xFFFFFFFF}, {2}, "\0a\n"s);
  const CountedCalls reads(FileCall::kReadAt);
  std::string out;
  EXPECT_EQ(reader_.Take(0, {0xFFFFFFFF, kNoLimit}, &out), (TakenRecords{0xFFFFFFFF, TakeEnd::kCountReached}));
  EXPECT_EQ(out, "\n");
  EXPECT_LE(reads.Calls(), 10);
}

// An index file of 16 GiB that uses a few KiB: the header, one slot in the middle and one at the end.
TEST_F(RecordReaderTest, SparseIndexOfBillionsOfSlotsIsAnsweredAtOnce) {
  Open({.maxRecord = 0xFFFFFFFF, .highestIndex = 0xFFFFFFFF}, {2}, "\0a\nb\n"s);
  const std::uint32_t slot_of_b = 0x80000001;
  const std::uint32_t last_slot = 0xFFFFFFFE;
  files_.WriteSlot(slot_of_b, 3);
  files_.WriteSlot(last_slot, 1);
  const CountedCalls reads(FileCall::kReadAt);
  std::string out;
  EXPECT_EQ(reader_.Take(0, {0xFFFFFFFF, kNoLimit}, &out), (TakenRecords{0xFFFFFFFF, TakeEnd::kCountReached}));
  EXPECT_EQ(out, "\nb\na\n");
  EXPECT_LE(reads.Calls(), 60);
}

TEST_F(RecordReaderTest, HolesOfTheIndexFileAreNotSkippedIfOffsetZeroHasText) {
  Open({.maxRecord = 100000, .highestIndex = 100000}, {2}, "x\ny\n");
  ASSERT_EQ(truncate(files_.IndexPath().c_str(), report::SlotOffset(100000)), 0);
  ExpectTakeAgrees(0, 100000, kNoLimit);
}

TEST_F(RecordReaderTest, SlotAfterAHoleIsTaken) {
  Open({.maxRecord = 50000, .highestIndex = 50000}, {}, "\0a\nb\n"s);
  for (const std::uint32_t slot : {0U, 1U, 1017U, 1018U, 8191U, 8192U, 20000U, 49999U}) {
    files_.WriteSlot(slot, 3);
    reader_.Drop();
    ExpectTakeAgrees(0, 50000, kNoLimit);
    ExpectTakeAgrees(slot > 5 ? slot - 5 : 0, 10, kNoLimit);
  }
}

TEST_F(RecordReaderTest, EnoughTextEndsTake) {
  Open({1, 1, 2, 4, 6}, "a\0b\nc\nd\n"s);
  std::string out;
  EXPECT_EQ(reader_.Take(0, {5, kNoLimit, 1}, &out), (TakenRecords{3, TakeEnd::kEnough}));
  EXPECT_EQ(out, "b\n");
  EXPECT_EQ(reader_.Take(2, {3, kNoLimit, 3}, &out), (TakenRecords{2, TakeEnd::kEnough}));
  EXPECT_EQ(out, "b\nb\nc\n");
  EXPECT_EQ(reader_.Take(2, {3, kNoLimit, 6}, &out), (TakenRecords{3, TakeEnd::kCountReached}));
}

TEST_F(RecordReaderTest, BillionsOfSlotsWithATextFillOnlyOneChunk) {
  Open({.maxRecord = 0xFFFFFFFF, .highestIndex = 0xFFFFFFFF}, {}, "a\r\n");
  std::string out;
  EXPECT_EQ(reader_.Take(5, {0xFFFFFFF0, 0x100000}, &out), (TakenRecords{0x100000 / 3, TakeEnd::kChunkFull}));
  EXPECT_EQ(out.size(), 0x100000U / 3 * 3);
}

TEST_F(RecordReaderTest, LastPossibleSlotCanBeTaken) {
  Open({.maxRecord = 0xFFFFFFFF, .highestIndex = 0xFFFFFFFF}, {}, "a\r\nb\r\n");
  // A hole, then the offset 3 in the last two slots that can be in use, and after the last possible slot, where a slot
  // number that wraps would find it.
  ASSERT_EQ(truncate(files_.IndexPath().c_str(), report::SlotOffset(0xFFFFFFFD)), 0);
  std::FILE* const index = std::fopen(files_.IndexPath().c_str(), "ab");
  const std::vector<std::uint32_t> threes(5, 3);
  ASSERT_EQ(std::fwrite(threes.data(), sizeof threes[0], threes.size(), index), threes.size());
  (void)std::fclose(index);
  ExpectTakeAgrees(0xFFFFFFFB, 10, kNoLimit);
  ExpectTakeAgrees(0xFFFFFFFE, 1, kNoLimit);
  ExpectTakeAgrees(0xFFFFFFFF, 1, kNoLimit);
  ExpectTakeAgrees(0, 3, kNoLimit);
}

TEST_F(RecordReaderTest, RecordsAfterFourGigabytesOfDataAreOutOfReachOfSlots) {
  Open({0xFFFFFFFF, 0}, "a\r\n");
  ASSERT_EQ(truncate(files_.DataPath().c_str(), 0x100000010), 0);
  EXPECT_EQ(TakeAll(), "a\r\n");
}

// Records around the edges of both windows: a record across the end of a window is read like any other.
TEST_F(RecordReaderTest, RecordsOfEveryLengthAroundTheWindowsAreTakenWhole) {
  for (const std::size_t text_bytes : {0U, 1U, 4093U, 4094U, 4095U, 32766U, 65533U, 65534U, 65535U, 70000U}) {
    OpenAppended(text_bytes < 10 ? 3 * kWindowSlots + 5 : 40, text_bytes);
    reader_.Drop();
    ExpectTakeAgrees(0, store_.header().highestIndex, kNoLimit);
    ExpectTakeAgrees(1, store_.header().highestIndex - 2, 0x100000);
    store_.Close();
    unlink(files_.IndexPath().c_str());
  }
}

TEST_F(RecordReaderTest, SlotsThatTheFileLacksReadAsZero) {
  Open({7, 9}, "0123456a\nb\n");
  std::vector<std::uint32_t> offsets(4, 1);
  EXPECT_EQ(reader_.ReadSlots(1, offsets), 0);
  EXPECT_EQ(offsets, (std::vector<std::uint32_t>{9, 0, 0, 0}));
  store_.Close();
  EXPECT_EQ(reader_.ReadSlots(0, offsets), EBADF);
}

TEST_F(RecordReaderTest, InterruptedAndShortReadsAreContinued) {
  Open({0, 3, 6}, "a\r\nb\r\nc\r\n");
  for (int nth = 1; nth <= 6; ++nth) {
    reader_.Drop();
    {
      const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EINTR});
      EXPECT_EQ(TakeAll(), "a\r\nb\r\nc\r\n") << nth;
    }
    reader_.Drop();
    const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .bytes = 2});
    EXPECT_EQ(TakeAll(), "a\r\nb\r\nc\r\n") << nth;
  }
}

// Random stores against readLine, and readLine against the plain model, which reads byte by byte.
class RandomStore {
 public:
  explicit RandomStore(std::uint64_t seed) : random_(seed) {}

  std::uint32_t Below(std::size_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  // Appends records of odd texts as a writer would, also across wraps, and then damages the files a little.
  void Build(const StoreFiles& files) {
    CReportFileBase writer;
    const std::uint32_t slots = 1 + Below(Below(10) == 0 ? 1000 : 40);
    EXPECT_TRUE(writer.Open(files.Path(), slots));
    const std::uint32_t longest = 1U << Below(slots < 100 ? 12 : 7);
    for (std::uint32_t i = Below(4 * slots + 2); i > 0; --i) EXPECT_TRUE(writer.writeLine(Text(longest).c_str()));
    writer.Close();
    if (Below(3) == 0) return;
    Damage(files.DataPath(), Below(5), "\n\xFF\0x"s);
    if (Below(2) == 0) DamageSlots(files);
    if (Below(4) == 0) CutShort(files.DataPath());
    if (Below(4) == 0) CutShort(files.IndexPath());
  }

 private:
  std::string Text(std::uint32_t longest) {
    std::string text(Below(longest), static_cast<char>('a' + Below(26)));
    if (!text.empty() && Below(20) == 0) text[Below(text.size())] = "\n\xFF]"[Below(3)];
    return text;
  }

  void Damage(const std::string& path, std::uint32_t count, std::string_view with) {
    std::string bytes = ReadFile(path);
    for (; count > 0 && !bytes.empty(); --count) bytes[Below(bytes.size())] = with[Below(with.size())];
    WriteFile(path, bytes);
  }

  // Damages slots: they are out of order, equal, overlapping, or lead beyond the end of the data file.
  void DamageSlots(const StoreFiles& files) {
    std::vector<std::uint32_t> slots = files.Slots();
    if (slots.empty()) return;
    const auto data_size = files.DataBytes().size();
    for (std::uint32_t i = Below(6) + 1; i > 0; --i) {
      std::uint32_t& slot = slots[Below(slots.size())];
      const std::uint32_t choices[] = {slots[Below(slots.size())], Below(data_size + 20), slot + 1, slot - 1,
                                       0xFFFFFFFF};
      slot = choices[Below(5)];
    }
    files.Make(files.Header(), slots, files.DataBytes());
  }

  void CutShort(const std::string& path) {
    const std::string bytes = ReadFile(path);
    WriteFile(path, bytes.substr(0, Below(bytes.size() + 1)));
  }

  std::mt19937_64 random_;
};

TEST_F(RecordReaderTest, RandomStoresAreTakenAsReadLineReadsThem) {
  const std::uint64_t seed = Seed("RecordReader");
  for (std::uint64_t round = 0; round < 200; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    RandomStore random(seed + round);
    store_.Close();
    unlink(files_.IndexPath().c_str());
    random.Build(files_);
    ASSERT_TRUE(store_.OpenRead(files_.Path()));
    reader_.Drop();
    const std::uint32_t in_use = store_.header().highestIndex;
    ExpectTakeAgrees(0, in_use, kNoLimit);
    for (int i = 0; i < 6; ++i) {
      const std::size_t limit = random.Below(2) == 0 ? 0x100000 : random.Below(20000);
      const std::string held(random.Below(100), 'h');
      ExpectTakeAgrees(random.Below(in_use + 2), random.Below(in_use + 3), limit, held);
    }
    if (HasFailure()) break;
  }
}

TEST_F(RecordReaderTest, RandomStoresAreReadAsThePlainModelReadsThem) {
  const std::uint64_t seed = Seed("ReadLine");
  for (std::uint64_t round = 0; round < 100 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    RandomStore random(seed + round);
    store_.Close();
    unlink(files_.IndexPath().c_str());
    random.Build(files_);
    ASSERT_TRUE(store_.OpenRead(files_.Path()));
    reader_.Drop();
    const ReportRing model{.index = files_.IndexBytes(), .data = files_.DataBytes(), .writer = {}, .ring = {}};
    EXPECT_EQ(model.ReadHeader(), store_.header());
    for (std::uint32_t slot = 0; slot <= store_.header().highestIndex; ++slot) {
      const bool is_there = slot < store_.header().highestIndex;
      const std::string expected = is_there ? model.Read(slot) : "unchanged";
      std::string line = "unchanged";
      std::string read;
      bool too_long = false;
      EXPECT_EQ(store_.readLine(line, slot), is_there);
      EXPECT_EQ(line, expected);
      EXPECT_EQ(reader_.Read(slot, kNoLimit, &read, &too_long), is_there);
      EXPECT_EQ(read, is_there ? expected : "");
    }
  }
}

}  // namespace
}  // namespace qx::test
