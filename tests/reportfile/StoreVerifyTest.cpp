#include "reportfile/tools/StoreVerify.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <random>
#include <thread>

#include "reportfile/tools/RecordWriter.h"
#include "tests/reportfile/StoreLife.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::IndexHeader;
using report::StoreFile;
using report::StoreScan;
using report::StoreState;

constexpr std::size_t kHeaderBytes = sizeof(IndexHeader);

void SetField(StoreBytes& store, std::size_t offset, std::uint32_t value) {
  std::memcpy(store.index.data() + offset, &value, sizeof value);
}

void SetSlot(StoreBytes& store, std::uint32_t slot, std::uint32_t offset) {
  SetField(store, static_cast<std::size_t>(report::SlotOffset(slot)), offset);
}

void AppendBatch(CReportFileBase& store, const std::vector<std::string>& texts) {
  const std::vector<std::string_view> views(texts.begin(), texts.end());
  (void)report::RecordWriter(store).Append(views);
}

// A store of `texts` whose writer is killed in a batch, before its write number `write`, counted from 1. The texts are
// short, so each write is one call of one kind. Unset if the batch has fewer writes.
std::optional<StoreBytes> KilledInBatch(std::uint32_t slots, const std::vector<std::string>& texts,
                                        const std::vector<std::string>& batch, int write) {
  const StoreFiles files;
  CReportFileBase store;
  if (!store.Open(files.Path(), slots)) throw std::runtime_error("the store could not be opened");
  AppendBatch(store, texts);
  const FailingCall killed({.call = FileCall::kWriteAt, .nth = write, .times = 1'000'000, .error = EIO});
  AppendBatch(store, batch);
  if (!killed.HasFailed()) return std::nullopt;
  return StoreBytes{files.IndexBytes(), files.DataBytes()};
}

// The store with the records of `after` and the header of `before`, which does not count the new ones.
StoreBytes Uncounted(const StoreBytes& before, const StoreBytes& after) {
  StoreBytes store = after;
  store.index.replace(0, kHeaderBytes, before.index, 0, kHeaderBytes);
  return store;
}

// The second round of a ring of three slots: rec7 and rec8 after a restart, rec6 from the previous round.
StoreBytes SecondRound() { return StoreOf(3, Numbered(8)); }

}  // namespace

// --- no false alarm

class StoreVerifyLives : public testing::Test {
 protected:
  std::uint32_t Below(std::size_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  // Any text of a C string, including line ends, markers and 0xFF.
  std::string Text(std::size_t size) {
    static const char kBytes[] = "abc =>\r\n\xFF";
    std::string text(size, ' ');
    for (char& byte : text) byte = kBytes[Below(Below(4) == 0 ? sizeof kBytes - 1 : 6)];
    return text;
  }

  std::uint32_t RingSize() {
    static const std::uint32_t kLarge[] = {0, 0x7FFFFFFF, 0x80000000, 0x80000001, 0x80000003, 0xFFFFFFFF};
    return Below(8) == 0 ? kLarge[Below(std::size(kLarge))] : 1 + Below(12);
  }

  std::mt19937_64 random_{Seed("StoreVerifyLives")};
};

TEST_F(StoreVerifyLives, EveryStoreOfTheWriterIsSound) {
  for (int life = 0; life < 100; ++life) {
    const std::uint32_t slots = RingSize();
    StoreLife store(slots);
    EXPECT_EQ(Rules(store.Bytes().Scan()), "") << "created and never written";
    const std::uint32_t longest = 1 + (1U << Below(11));
    for (std::uint32_t step = 1 + Below(60); step > 0; --step) {
      store.Append(Text(Below(longest)));
      if (Below(8) == 0) store.Reopen();
      ASSERT_EQ(Rules(store.Bytes().Scan()), "") << slots << " slots, life " << life;
    }
  }
}

// The files while a record is being written, or after a writer was killed: first without its slot and the header, then
// without the header.
TEST_F(StoreVerifyLives, RecordWithoutItsHeaderIsNotDamage) {
  for (int life = 0; life < 100; ++life) {
    StoreLife store(1 + Below(6));
    const std::uint32_t longest = 1 + (1U << Below(9));
    StoreBytes before = store.Bytes();
    for (int step = 0; step < 25; ++step) {
      store.Append(step == 0 ? "the first record, of one line" : "record" + Text(Below(longest)));
      const StoreBytes after = store.Bytes();
      EXPECT_EQ(Rules(StoreBytes{before.index, after.data}.Scan()), "") << "life " << life << ", step " << step;
      std::string slot_written = after.index;
      slot_written.replace(
          0, kHeaderBytes,
          before.index.empty() ? std::string(kHeaderBytes, '\0') : before.index.substr(0, kHeaderBytes));
      const StoreScan scan = StoreBytes{slot_written, after.data}.Scan();
      EXPECT_EQ(Rules(scan), "") << "life " << life << ", step " << step;
      EXPECT_TRUE(scan.record_in_flight);
      before = after;
    }
  }
}

// The batch is cut at every phase of a small ring and its data file, so that a part ends where the ring wraps, where
// the data file restarts, and at the end of the batch.
TEST(StoreVerifyBatch, BatchThatIsCutAtAnyWriteIsNotDamage) {
  constexpr std::uint32_t kSlots = 5;
  int uncounted = 0;
  for (int before = 0; before <= 25; ++before) {
    for (int size = 2; size <= 12; ++size) {
      std::vector<std::string> batch = Numbered(size);
      for (std::string& text : batch) text.insert(0, "batch ");
      for (int write = 1;; ++write) {
        const auto store = KilledInBatch(kSlots, Numbered(before), batch, write);
        if (!store.has_value()) break;
        const StoreScan scan = store->Scan();
        ASSERT_EQ(Rules(scan), "") << before << " records, then " << size << ", killed before write " << write;
        uncounted += scan.record_in_flight ? 1 : 0;
      }
    }
  }
  EXPECT_GT(uncounted, 500);
}

// The slots of a part are written by one call, which may end between two slots.
TEST(StoreVerifyBatch, SlotsWithoutTheirHeaderAreARecordInFlight) {
  struct Case {
    const char* what;
    int before;
    int part;
  };
  const Case cases[] = {
      {"filling ring", 10, 20},           {"up to the last free slot", 10, 40}, {"full ring, one round", 60, 20},
      {"full ring, two rounds", 110, 30}, {"up to the wrap", 75, 25},           {"directly after a restart", 100, 50},
  };
  for (const Case& in : cases) {
    const StoreBytes before = StoreOf(50, Numbered(in.before));
    const StoreBytes after = StoreOf(50, Numbered(in.before + in.part));
    const std::uint32_t first = report::SlotForNewRecord(before.Header());
    EXPECT_EQ(Rules(StoreBytes{before.index, after.data}.Scan()), "") << in.what;
    for (std::uint32_t slots = 1; slots <= static_cast<std::uint32_t>(in.part); ++slots) {
      StoreBytes store{before.index, after.data};
      const auto begin = static_cast<std::size_t>(report::SlotOffset(first));
      store.index.replace(begin, std::size_t{4} * slots, after.index, begin, std::size_t{4} * slots);
      const StoreScan scan = store.Scan();
      ASSERT_EQ(Rules(scan), "") << in.what << ", " << slots << " slots";
      EXPECT_TRUE(scan.record_in_flight) << in.what << ", " << slots << " slots";
    }
  }
}

// The records have any length; some of them overwrite indexed text, or look like the end marker.
TEST_F(StoreVerifyLives, BatchWithoutItsSlotsOrHeaderIsNotDamage) {
  for (int life = 0; life < 200; ++life) {
    const std::uint32_t slots = 1 + Below(30);
    const std::uint32_t longest = 1 + (1U << Below(7));
    const StoreFiles files;
    CReportFileBase store;
    ASSERT_TRUE(store.Open(files.Path(), slots));
    AppendBatch(store, {"first"});
    for (int step = 0; step < 30; ++step) {
      std::vector<std::string> part(1 + Below(report::RecordsInPart(store.header())));
      for (std::string& text : part) text = Below(8) == 0 ? "===>" : std::string(Below(longest), 'x');
      const StoreBytes before{files.IndexBytes(), files.DataBytes()};
      AppendBatch(store, part);
      const StoreBytes after{files.IndexBytes(), files.DataBytes()};
      ASSERT_EQ(Rules(after.Scan()), "") << "life " << life << ", step " << step;
      ASSERT_EQ(Rules(StoreBytes{before.index, after.data}.Scan()), "") << "life " << life << ", step " << step;
      const StoreScan scan = Uncounted(before, after).Scan();
      ASSERT_EQ(Rules(scan), "") << "life " << life << ", step " << step;
      ASSERT_TRUE(scan.record_in_flight);
    }
  }
}

// While the ring fills, the next writer appends where the killed one began. Slots of the killed writer's part remain
// after the slots in use.
TEST(StoreVerifyBatch, FreeSlotsOfAKilledWriterAreNotDamage) {
  const StoreFiles files;
  const StoreBytes killed = Uncounted(StoreOf(9, Numbered(2)), StoreOf(9, Numbered(8)));
  WriteFile(files.IndexPath(), killed.index);
  WriteFile(files.DataPath(), killed.data);
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 1));
  for (int count = 3; count < 25; ++count) {
    ASSERT_TRUE(store.writeLine("a longer record"));
    const StoreBytes now{files.IndexBytes(), files.DataBytes()};
    EXPECT_EQ(Rules(now.Scan()), "") << count << " records";
    EXPECT_EQ(report::VerifyHeader(files.Base()).state, StoreState::kSound);
  }
}

// Each writer appends a batch or is killed in it. Slots of several parts remain, and older slots lead into newer text.
TEST(StoreVerifyBatch, FreeSlotsOfSeveralKilledWritersAreNotDamage) {
  std::mt19937_64 random{Seed("StoreVerifyBatch")};
  int descents = 0;
  for (int life = 0; life < 25; ++life) {
    const StoreFiles files;
    for (int writer = 0; writer < 20; ++writer) {
      CReportFileBase store;
      ASSERT_TRUE(store.Open(files.Path(), 200));
      if (writer == 0) AppendBatch(store, {"first"});
      std::vector<std::string> batch(1 + random() % 10);
      for (std::string& text : batch) text.assign(random() % 12, static_cast<char>('a' + writer));
      const int write = random() % 4 != 0 ? 1 + static_cast<int>(random() % 3) : kAlways;
      const FailingCall killed({.call = FileCall::kWriteAt, .nth = write, .times = 1'000'000, .error = EIO});
      AppendBatch(store, batch);
      const StoreBytes now{files.IndexBytes(), files.DataBytes()};
      ASSERT_EQ(Rules(now.Scan()), "") << "life " << life << ", writer " << writer;
      const std::vector<std::uint32_t> slots = files.Slots();
      for (std::size_t slot = files.Header().highestIndex + 1; slot < slots.size(); ++slot) {
        descents += slots[slot] < slots[slot - 1] ? 1 : 0;
      }
    }
  }
  EXPECT_GT(descents, 0) << "no free slots of more than one part";
}

// A changed slot is accepted if it is free and leads into text that may be overwritten, because a killed writer of
// other records can have left the same files.
TEST(StoreVerifyBatch, ChangedFreeSlotIntoOverwrittenTextHasAnotherHistory) {
  const auto files_after = [](const std::vector<std::string>& killed_batch) {
    const StoreBytes killed = *KilledInBatch(9, Numbered(2), killed_batch, 3);
    const StoreFiles files;
    WriteFile(files.IndexPath(), killed.index);
    WriteFile(files.DataPath(), killed.data);
    CReportFileBase next;
    EXPECT_TRUE(next.Open(files.Path(), 9) && next.writeLine("a longer record over them"));
    return StoreBytes{files.IndexBytes(), files.DataBytes()};
  };
  StoreBytes store = files_after({"new 1", "new 2", "new 3", "new 4"});
  const StoreBytes other = files_after({"new 1", "new 22", "new3", "new 4"});
  SetSlot(store, 4, 27);
  EXPECT_EQ(store.index, other.index);
  EXPECT_EQ(store.data, other.data);
  EXPECT_EQ(Rules(store.Scan()), "");
}

// In a full ring, the text of a killed writer remains over older text that still has slots. No writer is killed at the
// start of the data file, because its text there could have one more line than the ring has slots.
TEST(StoreVerifyBatch, RingAfterAKilledWriterIsNotDamage) {
  std::mt19937_64 random{Seed("StoreVerifyBatch")};
  for (int life = 0; life < 80; ++life) {
    const StoreFiles files;
    const auto ring = static_cast<unsigned>(3 + random() % 12);
    std::size_t since_kill = 0;
    for (int writer = 0; writer < 30; ++writer) {
      CReportFileBase store;
      ASSERT_TRUE(store.Open(files.Path(), ring));
      (void)report::RecordWriter(store).FinishInterrupted();
      std::vector<std::string> batch(1 + random() % ring);
      for (std::string& text : batch) text.assign(random() % 12, static_cast<char>('a' + writer));
      const bool starts_round = store.header().writePosition == 0;
      const bool is_killed = since_kill > 2 * ring && !starts_round && random() % 2 != 0;
      const int write = is_killed ? 1 + static_cast<int>(random() % 6) : kAlways;
      const FailingCall killed({.call = FileCall::kWriteAt, .nth = write, .times = 1'000'000, .error = EIO});
      AppendBatch(store, batch);
      since_kill = is_killed ? 0 : since_kill + batch.size();
      const StoreBytes now{files.IndexBytes(), files.DataBytes()};
      ASSERT_EQ(Rules(now.Scan()), "") << "life " << life << ", ring of " << ring << ", writer " << writer;
    }
  }
}

// A full disk cuts the record or its marker short, at the end of the data file.
TEST(StoreVerify, RecordThatAFullDiskCutIsNotDamage) {
  StoreLife store(4);
  for (const std::string& text : Numbered(6)) store.Append(text);
  const StoreBytes before = store.Bytes();
  store.Append("text that was not written whole");
  const StoreBytes after = store.Bytes();
  for (std::size_t size = before.data.size(); size < after.data.size(); ++size) {
    EXPECT_EQ(Rules(StoreBytes{before.index, after.data.substr(0, size)}.Scan()), "") << size;
  }
  const std::size_t marker = after.data.size() - report::kEndMarker.size();
  for (std::size_t size = marker; size < after.data.size(); ++size) {
    const StoreScan scan = StoreBytes{after.index, after.data.substr(0, size)}.Scan();
    EXPECT_EQ(Rules(scan), "") << size;
    EXPECT_TRUE(scan.marker_cut_short);
  }
}

TEST(StoreVerify, CreatedRingWithoutRecordsIsSound) {
  const StoreFiles files;
  files.Make({.maxRecord = 3}, {}, "");
  EXPECT_EQ(report::VerifyStore(files.Base()).state, StoreState::kSound);
}

TEST(StoreVerify, RecordsThatWereOverwrittenByLongerOnesAreARemark) {
  const StoreScan scan = StoreOf(3, {"a", "b", "c", "d", "e", "f", std::string(12, 'x')}).Scan();
  EXPECT_EQ(Rules(scan), "");
  EXPECT_EQ(scan.overwritten_records, 2U);
}

TEST(StoreVerify, RecordsThatReadersCutAreARemark) {
  const StoreScan scan = StoreOf(9, {"whole", "with\nline feed", "with \xFF", "whole"}).Scan();
  EXPECT_EQ(Rules(scan), "");
  EXPECT_EQ(scan.cut_records, 2U);
}

// After 2^32 records the count starts over. Then it alone does not determine the oldest slot any more.
TEST(StoreVerify, CountThatHasWrappedIsARemark) {
  StoreBytes store = StoreOf(10, Numbered(12));
  SetField(store, offsetof(IndexHeader, elementCount), 6);  // 2^32 + 6 is 2 modulo 10 as well
  const StoreScan scan = store.Scan();
  EXPECT_TRUE(scan.count_wrapped);
  EXPECT_EQ(scan.findings.empty() || scan.findings[0].rule != "header.count", true);
}

TEST(StoreVerify, DataFileBeyondItsOffsetsIsARemark) {
  const StoreFiles files;
  constexpr std::uint32_t kHigh = 0xFFFFFFF0;
  files.Make({.writePosition = kHigh, .fileEnd = kHigh, .elementCount = 1, .maxRecord = 9, .highestIndex = 1}, {0}, "");
  ASSERT_EQ(truncate(files.DataPath().c_str(), kHigh), 0);
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 9));
  ASSERT_TRUE(store.writeLine("long enough to pass four GiB"));
  ASSERT_TRUE(store.writeLine("at the beginning again"));
  const report::StoreVerdict verdict = report::VerifyStore(files.Base());
  EXPECT_EQ(Rules(verdict.scan), "");
  EXPECT_TRUE(verdict.scan.beyond_offsets);
}

// --- each rule

StoreBytes Ring9After2() { return StoreOf(9, Numbered(2)); }
StoreBytes Ring9After3() { return StoreOf(9, Numbered(3)); }
StoreBytes Ring3After6() { return StoreOf(3, Numbered(6)); }
StoreBytes Ring100After104() { return StoreOf(100, Numbered(104)); }

// A sound store, its damage, and the findings.
struct DamagedStore {
  const char* what;
  StoreBytes (*sound)();
  void (*damage)(StoreBytes&);
  const char* rules;
};

const DamagedStore kDamagedStores[] = {
    {"no slots", SecondRound, [](StoreBytes& s) { SetField(s, 12, 0); }, "header.ring-size@12=0 index; "},
    {"more in use", SecondRound, [](StoreBytes& s) { SetField(s, 16, 4); }, "header.slots-in-use@16=4 index; "},
    {"oldest outside", SecondRound, [](StoreBytes& s) { SetField(s, 20, 3); }, "header.oldest@20=3 index; "},
    {"oldest elsewhere", Ring100After104, [](StoreBytes& s) { SetField(s, 20, 9); }, "header.count@8=104 index; "},
    {"oldest while filling", Ring9After2, [](StoreBytes& s) { SetField(s, 20, 1); }, "header.oldest@20=1 index; "},
    {"count while filling", Ring9After2, [](StoreBytes& s) { SetField(s, 8, 3); }, "header.count@8=3 index; "},
    {"too low a position", SecondRound, [](StoreBytes& s) { SetField(s, 0, 3); }, "header.write-position@0=3 index; "},
    {"a position just after a restart", Ring3After6, [](StoreBytes& s) { SetField(s, 0, 6); },
     "header.write-position@0=6 index; "},
    {"file end before position", SecondRound, [](StoreBytes& s) { SetField(s, 4, 11); },
     "header.file-end@4=11 index; "},
    {"file end while filling", Ring9After2, [](StoreBytes& s) { SetField(s, 4, 13); }, "header.file-end@4=13 index; "},
    {"index ends early", SecondRound, [](StoreBytes& s) { s.index.resize(33); }, "index.size@33=33 index; "},
    {"index is too long", SecondRound, [](StoreBytes& s) { s.index += "1234"; }, "index.size@40=40 index; "},
    {"index is empty", SecondRound, [](StoreBytes& s) { s.index.clear(); }, "index.size@0=0 index; "},
    {"index is shorter than a header", SecondRound, [](StoreBytes& s) { s.index.resize(23); },
     "index.size@23=23 index; "},
    {"data ends early", SecondRound, [](StoreBytes& s) { s.data.resize(35); }, "data.size@35=35 data; "},
    {"no marker", SecondRound, [](StoreBytes& s) { s.data[12] = '#'; }, "data.marker@12=35 data; "},
    {"no marker at the very end", Ring9After2, [](StoreBytes& s) { s.data[13] = '\0'; }, "data.marker@12=61 data; "},
    {"a slot too many", Ring9After2, [](StoreBytes& s) { s.index += std::string("\1\0\0\0", 4); },
     "slot.in-flight@32=1 index; "},
    {"a restart elsewhere", SecondRound, [](StoreBytes& s) { SetSlot(s, 0, 2); }, "slot.round-start@24=2 index; "},
    {"a slot backwards", Ring9After3, [](StoreBytes& s) { SetSlot(s, 2, 6); }, "slot.order@32=6 index; "},
    {"a slot outside", Ring9After3, [](StoreBytes& s) { SetSlot(s, 2, 99); }, "slot.outside@32=99 index; "},
    {"an old slot outside", SecondRound, [](StoreBytes& s) { SetSlot(s, 2, 0x24); }, "slot.outside@32=36 index; "},
    {"a record without its end", SecondRound, [](StoreBytes& s) { s.data[5] = ' '; }, "record.end@4=13 data; "},
    {"an old record without its end", SecondRound, [](StoreBytes& s) { s.data[0x22] = ' '; },
     "record.end@34=32 data; "},
    {"a NUL", SecondRound, [](StoreBytes& s) { s.data[1] = '\0'; }, "record.nul@1=0 data; "},
};

TEST(StoreVerify, EachRuleNamesFileOffsetAndValue) {
  for (const DamagedStore& damaged : kDamagedStores) {
    StoreBytes store = damaged.sound();
    ASSERT_EQ(Rules(store.Scan()), "");
    damaged.damage(store);
    EXPECT_EQ(Rules(store.Scan()), damaged.rules) << damaged.what;
  }
}

// Only in fileEnd, and in a small ring in a count that may have wrapped, a flipped bit could make another sound store.
TEST(StoreVerify, EveryFlippedBitOfTheIndexFileIsFound) {
  const StoreBytes sound = StoreOf(50, Numbered(120));
  std::string missed;
  for (std::size_t bit = 0; bit < 8 * sound.index.size(); ++bit) {
    StoreBytes store = sound;
    store.index[bit / 8] = static_cast<char>(store.index[bit / 8] ^ (1 << bit % 8));
    if (store.Scan().findings.empty()) missed += std::to_string(bit) + " ";
  }
  EXPECT_EQ(missed, "");
}

// A slot gets an offset at which no record begins, in stores with and without a part that is not counted. The oldest
// record may be of the previous round; then its text may be overwritten, and its slot may lead into new text.
TEST(StoreVerifyBatch, SlotThatIsChangedAtRandomIsFound) {
  std::mt19937_64 random{Seed("StoreVerifyBatch")};
  for (const int count : {60, 75, 120}) {
    const StoreBytes before = StoreOf(50, Numbered(count));
    const StoreBytes after = StoreOf(50, Numbered(count + 20));
    const std::size_t new_end = after.Header().writePosition + report::kLineEndAndMarker.size();
    for (const StoreBytes& sound : {before, after, Uncounted(before, after)}) {
      ASSERT_EQ(Rules(sound.Scan()), "");
      for (std::uint32_t slot = 0; slot < 50; ++slot) {
        for (int i = 0; i < 20; ++i) {
          const auto offset = static_cast<std::uint32_t>(1 + random() % (2 * sound.data.size()));
          const bool may_be_overwritten = count > 100 && offset < new_end;
          if (may_be_overwritten || sound.data.substr(0, offset).ends_with("\r\n")) continue;
          StoreBytes store = sound;
          SetSlot(store, slot, offset);
          EXPECT_NE(Rules(store.Scan()), "") << count << " records, slot " << slot << " is " << offset;
        }
      }
    }
  }
}

// Slots 3 to 8 remain of a killed writer. After the text of the next writer, a record begins at the start of each line.
TEST(StoreVerifyBatch, FreeSlotThatLeadsNowhereIsFound) {
  StoreBytes sound = Uncounted(StoreOf(9, Numbered(2)), StoreOf(9, Numbered(9)));
  const StoreBytes next = StoreOf(9, {"rec1", "rec2", "r"});
  sound.index.replace(0, next.index.size(), next.index);
  sound.data.replace(0, next.data.size(), next.data);
  ASSERT_EQ(Rules(sound.Scan()), "");
  for (const std::uint32_t offset : {0U, 1U, 7U, 59U, 99U, 0xFFFFFFFFU}) {
    StoreBytes store = sound;
    SetSlot(store, 4, offset);
    EXPECT_EQ(Rules(store.Scan()), "slot.in-flight@40=" + std::to_string(offset) + " index; ");
  }
}

// --- hostile files

// Counts the reads of a check.
class CountingBytes final : public report::ByteSource {
 public:
  CountingBytes(std::int64_t size, std::string head) : size_(size), head_(std::move(head)) {}
  std::int64_t Size() override { return size_; }
  std::size_t ReadAt(std::int64_t offset, void* to, std::size_t size) override {
    ++reads;
    if (offset >= size_) return 0;
    const auto held = static_cast<std::size_t>(std::min<std::int64_t>(static_cast<std::int64_t>(size), size_ - offset));
    std::memset(to, 0, held);
    if (offset < std::ssize(head_)) head_.copy(static_cast<char*>(to), held, static_cast<std::size_t>(offset));
    return held;
  }
  int reads = 0;

 private:
  std::int64_t size_;
  std::string head_;
};

TEST(StoreVerify, BillionsOfSlotsInAHoleCostOnlyTheKeptFindings) {
  const IndexHeader header = {.writePosition = 0xFFFFFFF0,
                              .fileEnd = 0xFFFFFFF0,
                              .elementCount = 0x7FFFFFF0,
                              .maxRecord = 0x7FFFFFF0,
                              .highestIndex = 0x7FFFFFF0,
                              .oldestIndex = 0};
  CountingBytes index(report::SlotOffset(0x7FFFFFF0),
                      std::string(reinterpret_cast<const char*>(&header), sizeof header));
  CountingBytes data(0xFFFFFFF6, "");
  const StoreScan scan = ScanStore(index, data);
  EXPECT_FALSE(scan.findings.empty());
  EXPECT_LE(scan.findings.size(), report::kFindingsMax);
  EXPECT_LT(index.reads + data.reads, 1000);
}

// --- the result for files

TEST(StoreVerify, FindingsThatStayAreDamage) {
  const StoreFiles files;
  files.Make({.writePosition = 9, .fileEnd = 1, .elementCount = 3, .maxRecord = 3, .highestIndex = 3}, {0, 1, 2}, "x");
  const report::StoreVerdict verdict = report::VerifyStore(files.Base());
  EXPECT_EQ(verdict.state, StoreState::kDamaged);
  EXPECT_EQ(verdict.scan.findings[0].rule, "header.file-end");
}

// The writing thread changes the header between any two scans. If it does not run in that time, another try follows.
TEST(StoreVerifyThreads, FindingsInAStoreThatIsBeingWrittenAreNotDamage) {
  const StoreFiles files;
  IndexHeader header{.writePosition = 9, .fileEnd = 1, .elementCount = 3, .maxRecord = 3, .highestIndex = 3};
  files.Make(header, {0, 1, 2}, "x");
  std::atomic<bool> stop{false};
  std::atomic<bool> has_begun{false};
  std::thread writer([&] {
    const int index = open(files.IndexPath().c_str(), O_WRONLY | O_CLOEXEC);
    while (!stop) {
      ++header.elementCount;
      if (pwrite(index, &header, sizeof header, 0) != ssize_t{sizeof header}) break;
      has_begun = true;
    }
    close(index);
  });
  while (!has_begun) std::this_thread::yield();
  report::StoreVerdict verdict = report::VerifyStore(files.Base());
  for (int tries = 1; tries < 10 && verdict.state != StoreState::kChanged; ++tries) {
    verdict = report::VerifyStore(files.Base());
  }
  stop = true;
  writer.join();
  EXPECT_EQ(verdict.state, StoreState::kChanged);
  EXPECT_FALSE(verdict.scan.findings.empty());
}

// --- the header alone

TEST(VerifyHeader, ContradictionsOfHeaderAndSizesAreFound) {
  const StoreFiles files;
  const StoreBytes store = SecondRound();
  const auto write = [&](const std::string& index, const std::string& data) {
    WriteFile(files.IndexPath(), index);
    WriteFile(files.DataPath(), data);
    return report::VerifyHeader(files.Base()).state;
  };
  EXPECT_EQ(write(store.index, store.data), StoreState::kSound);
  EXPECT_EQ(write(store.index.substr(0, kHeaderBytes), store.data), StoreState::kDamaged);
  EXPECT_EQ(write(store.index.substr(0, kHeaderBytes - 1), store.data), StoreState::kDamaged);
  EXPECT_EQ(write(store.index, store.data.substr(0, 10)), StoreState::kDamaged);
  EXPECT_EQ(write("", ""), StoreState::kSound);
  EXPECT_EQ(write("", store.data), StoreState::kSound);  // the first record is being written; texts are not checked
}

TEST(VerifyHeader, RingOfBillionsThatTheFileDoesNotHaveIsFound) {
  const StoreFiles files;
  files.Make({.elementCount = 16777215, .maxRecord = 16777215, .highestIndex = 16777215, .oldestIndex = 0}, {0},
             "a\r\n===>\r\n");
  const report::StoreVerdict verdict = report::VerifyHeader(files.Base());
  EXPECT_EQ(verdict.state, StoreState::kDamaged);
  EXPECT_THAT(verdict.scan.findings, testing::Contains(testing::Field(&report::Finding::rule, "index.size")));
}

// Each scan finds another contradiction, so a writer was active in between.
TEST(VerifyHeaderThreads, FindingsThatChangeBetweenTwoScansAreNotDamage) {
  const StoreFiles files;
  const StoreBytes store = SecondRound();
  WriteFile(files.DataPath(), store.data);
  WriteFile(files.IndexPath(), store.index);
  std::atomic<bool> is_done = false;
  std::thread writer([&] {
    for (std::size_t cut = 0; !is_done; ++cut) {
      EXPECT_EQ(truncate(files.DataPath().c_str(), static_cast<off_t>(1 + cut % 10)), 0);
    }
  });
  int damaged = 0;
  for (int i = 0; i < 10; ++i) damaged += report::VerifyHeader(files.Base()).state == StoreState::kDamaged ? 1 : 0;
  is_done = true;
  writer.join();
  EXPECT_LT(damaged, 8);  // by chance both scans can see the same size
}

TEST(StoreVerify, StoreWithOneFileIsDamagedAndWithoutFilesNotFound) {
  const StoreFiles files;
  EXPECT_EQ(report::VerifyStore(files.Base()).state, StoreState::kNotFound);
  WriteFile(files.DataPath(), "");
  const report::StoreVerdict verdict = report::VerifyStore(files.Base());
  EXPECT_EQ(verdict.state, StoreState::kDamaged);
  EXPECT_EQ(Rules(verdict.scan), "file.missing@0=0 index; ");
}

TEST(StoreVerify, FileThatIsNotRegularIsUnreadable) {
  const StoreFiles files;
  ASSERT_EQ(mkfifo(files.IndexPath().c_str(), 0600), 0);
  WriteFile(files.DataPath(), "");
  const report::StoreVerdict verdict = report::VerifyStore(files.Base());
  EXPECT_EQ(verdict.state, StoreState::kUnreadable);
  EXPECT_EQ(verdict.error, EINVAL);
  EXPECT_EQ(verdict.file, files.IndexPath());
}

}  // namespace qx::test
