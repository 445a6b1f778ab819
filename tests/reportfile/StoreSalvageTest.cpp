#include "reportfile/tools/StoreSalvage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>

#include "tests/reportfile/StoreLife.h"

namespace qx::test {
namespace {

using report::SalvageCounts;
using report::SalvageState;
using testing::ElementsAre;
using testing::IsEmpty;

using Texts = std::vector<std::string>;

Texts Salvaged(const StoreBytes& store, bool with_unindexed = true, SalvageCounts* counts = nullptr) {
  report::MemoryBytes index(store.index);
  report::MemoryBytes data(store.data);
  Texts texts;
  const SalvageCounts counted = SalvageRecords(index, data, with_unindexed, [&texts](std::string_view text) {
    texts.emplace_back(text);
    return true;
  });
  if (counts != nullptr) *counts = counted;
  return texts;
}

void SetSlotOf(StoreBytes& store, std::uint32_t slot, std::uint32_t offset) {
  store.index.replace(static_cast<std::size_t>(report::SlotOffset(slot)), 4, reinterpret_cast<const char*>(&offset), 4);
}

}  // namespace

// If a failed `stat` counted as an empty file, a salvage would succeed without any record.
TEST(FileBytes, FileWhoseStatFailsIsAnErrorAndNotAnEmptyFile) {
  const TempDir dir;
  WriteFile(dir.File("data"), "some bytes");
  report::FileBytes bytes(file::OpenRegular(dir.File("data").c_str(), O_RDONLY));
  ASSERT_EQ(bytes.Size(), 10);
  const int kept = ::dup(bytes.Number());
  ASSERT_EQ(::close(bytes.Number()), 0);
  EXPECT_EQ(bytes.Size(), 0);
  EXPECT_EQ(bytes.Error(), EBADF);
  ASSERT_NE(::dup2(kept, bytes.Number()), -1);  // the object closes it
  ::close(kept);
}

TEST(StoreSalvage, SoundStoreIsSalvagedInAgeOrder) {
  SalvageCounts counts;
  EXPECT_THAT(Salvaged(StoreOf(5, Numbered(3)), true, &counts), ElementsAre("rec1", "rec2", "rec3"));
  EXPECT_EQ(counts.indexed, 3U);
  EXPECT_EQ(counts.unindexed + counts.lost, 0U);
}

// rec7 has overwritten rec1, and the end marker has overwritten rec2. rec3 may be the rest of a longer record, so it is
// left out. rec4 is whole, because there is a line end before it.
TEST(StoreSalvage, WholeLinesAfterTheEndMarkerFollowTheIndexedRecords) {
  SalvageCounts counts;
  const StoreBytes store = StoreOf(3, Numbered(7));
  EXPECT_THAT(Salvaged(store, true, &counts), ElementsAre("rec5", "rec6", "rec7", "rec4"));
  EXPECT_EQ(counts.indexed, 3U);
  EXPECT_EQ(counts.unindexed, 1U);
  EXPECT_THAT(Salvaged(store, false), ElementsAre("rec5", "rec6", "rec7"));
}

TEST(StoreSalvage, WithoutAnIndexTheLinesOfTheDataFileAreSalvaged) {
  EXPECT_THAT(Salvaged({"", StoreOf(9, Numbered(3)).data}), ElementsAre("rec1", "rec2", "rec3"));
  EXPECT_THAT(Salvaged({StoreOf(9, Numbered(3)).index, ""}), IsEmpty());
}

TEST(StoreSalvage, RecordsOfTheSlotsAreSalvagedInSpiteOfABadHeader) {
  StoreBytes store = StoreOf(4, Numbered(6));
  store.index.replace(0, sizeof(report::IndexHeader), std::string(sizeof(report::IndexHeader), '\xEE'));
  EXPECT_THAT(Salvaged(store, false), testing::UnorderedElementsAre("rec3", "rec4", "rec5", "rec6"));
}

// Only writePosition shows where the ring begins.
TEST(StoreSalvage, EndOfTheNewestRecordShowsALostOldestSlot) {
  StoreBytes store = StoreOf(4, Numbered(6));
  store.index.replace(offsetof(report::IndexHeader, oldestIndex), 4, "\xFF\xFF\xFF\xFF");
  EXPECT_THAT(Salvaged(store, false), ElementsAre("rec3", "rec4", "rec5", "rec6"));
}

TEST(StoreSalvage, RecordWithoutItsHeaderIsTheNewestOne) {
  StoreLife life(3);
  for (const std::string& text : Numbered(4)) life.Append(text);
  const StoreBytes before = life.Bytes();
  life.Append("rec5");
  StoreBytes store = life.Bytes();
  store.index.replace(0, sizeof(report::IndexHeader), before.index, 0, sizeof(report::IndexHeader));
  EXPECT_THAT(Salvaged(store, false), ElementsAre("rec3", "rec4", "rec5"));
}

// A killed writer has written some of the slots of a part.
TEST(StoreSalvage, RecordsOfABatchWithoutItsHeaderAreTheNewestOnes) {
  const StoreBytes before = StoreOf(5, Numbered(6));
  const StoreBytes after = StoreOf(5, Numbered(9));
  StoreBytes store = {before.index, after.data};
  store.index.replace(static_cast<std::size_t>(report::SlotOffset(1)), 8, after.index,
                      static_cast<std::size_t>(report::SlotOffset(1)), 8);
  EXPECT_THAT(Salvaged(store, false), ElementsAre("rec4", "rec5", "rec6", "rec7", "rec8"));
  store.index = after.index;
  store.index.replace(0, sizeof(report::IndexHeader), before.index, 0, sizeof(report::IndexHeader));
  EXPECT_THAT(Salvaged(store, false), ElementsAre("rec5", "rec6", "rec7", "rec8", "rec9"));
}

TEST(StoreSalvage, SlotIntoTheMiddleOfARecordSalvagesNoPart) {
  StoreBytes store = StoreOf(9, Numbered(5));
  SetSlotOf(store, 3, 8);  // into rec2
  SalvageCounts counts;
  EXPECT_THAT(Salvaged(store, true, &counts), ElementsAre("rec1", "rec2", "rec3", "rec5", "rec4"));
  EXPECT_EQ(counts.lost, 1U);
  EXPECT_EQ(counts.unindexed, 1U) << "rec4 is still there";
}

TEST(StoreSalvage, RecordWithANulOrWithoutItsEndIsLost) {
  StoreBytes store = StoreOf(9, Numbered(3));
  store.data[8] = '\0';
  EXPECT_THAT(Salvaged(store), ElementsAre("rec1", "rec3"));
  store.data.resize(15);
  EXPECT_THAT(Salvaged(store), ElementsAre("rec1"));
}

// A reader sees a record only up to its first line feed. The rest is salvaged as a line without a slot.
TEST(StoreSalvage, RecordOfTwoLinesIsSalvagedAsItsFirst) {
  EXPECT_THAT(Salvaged(StoreOf(9, {"one\ntwo", "three"}), false), ElementsAre("one", "three"));
  EXPECT_THAT(Salvaged(StoreOf(9, {"one\ntwo", "three"})), ElementsAre("one", "three", "two"));
}

TEST(StoreSalvage, EmptyTextsAndTheByteFFAreSalvaged) {
  EXPECT_THAT(Salvaged(StoreOf(9, {"",
                                   "a\xFF"
                                   "b",
                                   ""})),
              ElementsAre("",
                          "a\xFF"
                          "b",
                          ""));
}

// --- the oracle: a record whose bytes and slot survive is always salvaged

class StoreSalvageOracle : public testing::Test {
 protected:
  std::uint32_t Below(std::size_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  // A store of one-line records of one length, so that no record overwrites another. Its ring may have wrapped many
  // times.
  StoreBytes AnyStore() {
    const std::uint32_t slots = 1 + Below(9);
    const std::size_t length = 1 + Below(12);
    StoreLife life(slots);
    for (std::uint32_t count = 1 + Below(5 * slots + 3); count > 0; --count) {
      std::string text(length, ' ');
      for (char& byte : text) byte = static_cast<char>('a' + Below(26));
      life.Append(text);
    }
    return life.Bytes();
  }

  void Damage(StoreBytes& store) {
    std::string& file = Below(2) == 0 ? store.index : store.data;
    if (file.empty()) return;
    const std::size_t at = Below(file.size());
    const std::size_t size = std::min<std::size_t>(1 + Below(12), file.size() - at);
    switch (Below(5)) {
      case 0:
        file[at] = static_cast<char>(file[at] ^ (1 << Below(8)));
        break;
      case 1:
        file.replace(at, size, size, '\0');
        break;
      case 2:
        file.resize(at);
        break;
      case 3:
        for (std::size_t i = at; i < at + size; ++i) file[i] = static_cast<char>(Below(256));
        break;
      default:
        for (std::size_t i = at; i < at + size; ++i) file[i] = "\r\n=>"[Below(4)];
        break;
    }
  }

  struct Record {
    std::size_t slot_at;
    std::uint32_t offset;
    std::string line;
  };

  static std::vector<Record> RecordsOf(const StoreBytes& store) {
    std::vector<Record> records;
    for (std::size_t at = sizeof(report::IndexHeader); at + 4 <= store.index.size(); at += 4) {
      std::uint32_t offset = 0;
      store.index.copy(reinterpret_cast<char*>(&offset), 4, at);
      const std::size_t end = store.data.find('\n', offset);
      records.push_back({at, offset, store.data.substr(offset, end + 1 - offset)});
    }
    return records;
  }

  static bool Survives(const Record& record, const StoreBytes& before, const StoreBytes& after) {
    return after.index.size() >= record.slot_at + 4 &&
           after.index.compare(record.slot_at, 4, before.index, record.slot_at, 4) == 0 &&
           after.data.size() >= record.offset + record.line.size() &&
           after.data.compare(record.offset, record.line.size(), record.line) == 0;
  }

  // If only texts are damaged, the records must be in the order of the ring.
  static void ExpectSurvivors(const StoreBytes& before, const StoreBytes& after, int round) {
    const Texts salvaged = Salvaged(after, false);
    const std::multiset<std::string> found(salvaged.begin(), salvaged.end());
    for (const Record& record : RecordsOf(before)) {
      if (!Survives(record, before, after)) continue;
      ASSERT_TRUE(found.contains(record.line.substr(0, record.line.size() - 2)))
          << "round " << round << ": " << record.line << HexDump(before.index) << HexDump(before.data)
          << HexDump(after.index) << HexDump(after.data);
    }
  }

  std::mt19937_64 random_{Seed("StoreSalvageOracle")};
};

TEST_F(StoreSalvageOracle, EveryRecordWithIntactBytesAndSlotIsSalvaged) {
  for (int made = 0; made < 500; ++made) {
    const StoreBytes sound = AnyStore();
    for (int damaged = 0; damaged < 20; ++damaged) {
      StoreBytes store = sound;
      for (std::uint32_t count = 1 + Below(3); count > 0; --count) Damage(store);
      ASSERT_NO_FATAL_FAILURE(ExpectSurvivors(sound, store, made));
    }
  }
}

TEST_F(StoreSalvageOracle, SoundStoreIsSalvagedWholeAndInOrder) {
  for (int made = 0; made < 200; ++made) {
    StoreLife life(1 + Below(9));
    Texts newest;
    const std::uint32_t slots = [&life] {
      life.Append("0");
      return life.Bytes().Header().maxRecord;
    }();
    newest.push_back("0");
    for (std::uint32_t count = Below(40); count > 0; --count) {
      newest.push_back(std::string(1, static_cast<char>('a' + Below(26))));
      life.Append(newest.back());
      if (newest.size() > slots) newest.erase(newest.begin());
    }
    if (newest.size() > slots) newest.erase(newest.begin());
    // In a ring of one slot, the end marker after a restart overwrites the record, so it cannot be salvaged.
    ASSERT_EQ(Salvaged(life.Bytes(), false), newest) << slots;
  }
}

// --- hostile files

TEST(StoreSalvage, SlotsThatAllPointIntoOneLineCostOneReadOfIt) {
  StoreBytes store = StoreOf(1, {std::string(200000, 'x')});
  store.index.resize(sizeof(report::IndexHeader));
  for (std::uint32_t offset = 0; offset < 200000; ++offset) store.index.append(reinterpret_cast<char*>(&offset), 4);
  SalvageCounts counts;
  std::uint64_t bytes = 0;
  report::MemoryBytes index(store.index);
  report::MemoryBytes data(store.data);
  counts = SalvageRecords(index, data, true, [&bytes](std::string_view text) {
    bytes += text.size();
    return true;
  });
  EXPECT_LE(bytes, 4 * store.data.size() + (1U << 20));
}

TEST(StoreSalvage, HolesOfTheIndexFileCostOnlyTheCheckedSlots) {
  const StoreFiles files;
  WriteFile(files.IndexPath(), "");
  WriteFile(files.DataPath(), "only\r\n===>\r\n");
  ASSERT_EQ(truncate(files.IndexPath().c_str(), off_t{1} << 36), 0);
  const report::SalvageResult result = report::SalvageStore(files.Base(), files.Base() + "-new", true);
  EXPECT_EQ(result.state, SalvageState::kDone);
  EXPECT_TRUE(result.counts.is_cut_short);
  EXPECT_EQ(result.counts.indexed, 1U);
}

// --- files

TEST(StoreSalvage, NewStoreIsSoundAndTheOldOneUnchanged) {
  StoreLife life(3);
  for (const std::string& text : Numbered(8)) life.Append(text);
  StoreBytes store = life.Bytes();
  store.index[20] = 9;
  WriteFile(life.Files().IndexPath(), store.index);
  const std::string target = life.Files().Base() + "-new";
  const report::SalvageResult result = report::SalvageStore(life.Files().Base(), target, true);
  EXPECT_EQ(result.state, SalvageState::kDone);
  EXPECT_EQ(result.ring_size, 4U);
  EXPECT_EQ(report::VerifyStore(target).state, report::StoreState::kSound);
  CReportFileBase reader;
  ASSERT_TRUE(reader.OpenRead(target.c_str()));
  EXPECT_THAT(ReadAll(reader), ElementsAre("rec6\r\n", "rec7\r\n", "rec8\r\n", "rec5\r\n"));
  EXPECT_EQ(life.Bytes().index, store.index);
  EXPECT_EQ(life.Bytes().data, store.data);
}

TEST(StoreSalvage, ExistingFilesAreNeverReplaced) {
  StoreLife life(3);
  life.Append("a");
  const std::string& base = life.Files().Base();
  EXPECT_EQ(report::SalvageStore(base, base, true).state, SalvageState::kTargetExists);
  WriteFile(base + "-new.dat", "precious");
  EXPECT_EQ(report::SalvageStore(base, base + "-new", true).state, SalvageState::kTargetExists);
  EXPECT_EQ(ReadFile(base + "-new.dat"), "precious");
  EXPECT_FALSE(Exists(base + "-new.ind"));
}

TEST(StoreSalvage, FailedWriteLeavesNoFiles) {
  StoreLife life(3);
  life.Append("a");
  const report::SalvageResult result = report::SalvageStore(life.Files().Base(), "/proc/none/new", true);
  EXPECT_EQ(result.state, SalvageState::kFailed);
  EXPECT_NE(result.error, 0);
  EXPECT_EQ(report::SalvageStore(life.Files().Base() + "-none", "new", true).state, SalvageState::kNotFound);
}

}  // namespace qx::test
