// Tests 64-bit record numbers, and the place where a sender continues.
#include "tools/qxrelay/send/StoreNumbers.h"

#include <gtest/gtest.h>

#include <map>

#include "tools/qxrelay/send/Place.h"

namespace {

using qx::relay::FindPlace;
using qx::relay::FirstRange;
using qx::relay::Mark;
using qx::relay::Place;
using qx::relay::Proof;
using qx::relay::ProveMark;
using qx::relay::RangeNear;
using qx::relay::RecordRange;
using qx::relay::Rival;
using qx::relay::StoreView;
using qx::report::IndexHeader;

constexpr std::uint64_t kModulus = std::uint64_t{1} << 32U;

// The header of a ring of `slots` slots after `count` records.
IndexHeader HeaderAfter(std::uint64_t count, std::uint32_t slots) {
  const auto used = static_cast<std::uint32_t>(count < slots ? count : slots);
  return {.writePosition = 1000,
          .fileEnd = 1000,
          .elementCount = static_cast<std::uint32_t>(count),
          .maxRecord = slots,
          .highestIndex = used,
          .oldestIndex = used == slots ? static_cast<std::uint32_t>(count % slots) : 0};
}

// The record with number n has the hash n + 1000, unless another `shift` is given. Ages count from `oldest`.
class PlainHashes final : public qx::relay::RecordHashes {
 public:
  explicit PlainHashes(std::uint64_t oldest, std::uint64_t shift = 1000) : oldest_(oldest), shift_(shift) {}

  std::vector<std::uint64_t> Hashes(std::uint64_t age, std::uint64_t count) override {
    std::vector<std::uint64_t> hashes;
    for (std::uint64_t i = 0; i < count; ++i) hashes.push_back(oldest_ + age + i + shift_);
    return hashes;
  }

 private:
  std::uint64_t oldest_;
  std::uint64_t shift_;
};

TEST(RelayStoreNumbers, TheCountIsCompletedNearAKnownNumber) {
  struct Row {
    std::uint64_t count;
    std::uint32_t slots;
    std::uint64_t near;
    std::optional<RecordRange> range;
  };
  const Row rows[] = {
      {7, 10, 5, RecordRange{0, 7}},
      {7, 10, 7, RecordRange{0, 7}},
      {7, 10, 0, RecordRange{0, 7}},
      {25, 10, 20, RecordRange{15, 25}},
      {kModulus + 3, 10, kModulus - 2, RecordRange{kModulus - 7, kModulus + 3}},
      {kModulus, 10, kModulus - 1, RecordRange{kModulus - 10, kModulus}},
      {5 * kModulus + 1, 10, 5 * kModulus - 100, RecordRange{5 * kModulus - 9, 5 * kModulus + 1}},
      {90, 10, 100, RecordRange{80, 90}},   // fewer than were sent
      {5, 10, 100, RecordRange{0, 5}},      // started over
      {kModulus - 5, 10, 3, std::nullopt},  // would be below 0
      {20, 10, kModulus + 50, RecordRange{kModulus + 10, kModulus + 20}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RangeNear(HeaderAfter(row.count, row.slots), row.near), row.range) << row.count << " near " << row.near;
  }
}

TEST(RelayStoreNumbers, TheFirstRangeKnowsOnlyTheCount) {
  EXPECT_EQ(FirstRange(HeaderAfter(0, 10)), (RecordRange{0, 0}));
  EXPECT_EQ(FirstRange(HeaderAfter(25, 10)), (RecordRange{15, 25}));
  EXPECT_EQ(FirstRange(HeaderAfter(kModulus + 3, 10)), (RecordRange{kModulus - 7, kModulus + 3}));
}

TEST(RelayStoreNumbers, ARoundStartsAtEachMultipleOfTwiceTheRing) {
  EXPECT_EQ(qx::relay::RoundStart(HeaderAfter(8, 3), {5, 8}), 6U);
  EXPECT_EQ(qx::relay::RoundStart(HeaderAfter(6, 3), {3, 6}), 6U);
  EXPECT_EQ(qx::relay::RoundStart(HeaderAfter(5, 3), {2, 5}), 0U);
}

TEST(RelayStoreNumbers, TheOldestSlotOfAFullRingIsNotSendable) {
  StoreView view = {.header = HeaderAfter(25, 10), .unsafe = 1};
  EXPECT_EQ(view.Sendable({15, 25}), (RecordRange{16, 25}));
  view.unsafe = 20;
  EXPECT_EQ(view.Sendable({15, 25}), (RecordRange{25, 25}));
  view.unsafe = 0;
  EXPECT_EQ(view.Sendable({0, 5}), (RecordRange{0, 5}));
}

TEST(RelayPlace, AMarkIsProvenByTheHashOfTheRecordBefore) {
  struct Row {
    const char* what;
    std::uint64_t count;
    Mark mark;
    Proof proof;
  };
  const Row rows[] = {
      {"the record is there", 25, {1, 20, 1019, 10}, Proof::kProven},
      {"the newest record", 25, {1, 25, 1024, 10}, Proof::kProven},
      {"the oldest that can be sent", 25, {1, 17, 1016, 10}, Proof::kProven},
      {"another record", 25, {1, 20, 7, 10}, Proof::kContradicted},
      {"in the oldest slot", 25, {1, 16, 1015, 10}, Proof::kGone},
      {"overwritten", 25, {1, 9, 1008, 10}, Proof::kGone},
      {"without a hash", 25, {1, 20, 0, 10}, Proof::kGone},
      {"nothing sent yet", 25, {1, 0, 0, 10}, Proof::kProven},
      {"fewer records than were sent", 25, {1, 26, 1025, 10}, Proof::kContradicted},
      {"another ring size", 25, {1, 20, 1019, 11}, Proof::kContradicted},
      {"ring size not known", 25, {1, 20, 1019, 0}, Proof::kProven},
  };
  for (const Row& row : rows) {
    const StoreView view = {.header = HeaderAfter(row.count, 10), .unsafe = 1};
    PlainHashes hashes(15);
    EXPECT_EQ(ProveMark(row.mark, view, hashes), row.proof) << row.what;
  }
  PlainHashes hashes(15);
  EXPECT_EQ(ProveMark(std::nullopt, {}, hashes), Proof::kNone);
}

TEST(RelayPlace, TheTableOfMarksHolds) {
  struct Row {
    const char* what;
    std::optional<Mark> message;
    std::optional<Mark> state;
    Place place;
  };
  const Mark proven_20 = {1, 20, 1019, 10};
  const Mark proven_22 = {1, 22, 1021, 10};
  const Mark gone_9 = {1, 9, 1008, 10};
  const Mark gone_11 = {1, 11, 1010, 10};
  const Mark wrong = {1, 20, 7, 10};
  const Mark other_proven = {2, 20, 1019, 10};
  const Mark other_gone = {2, 11, 1010, 10};
  const Mark other_wrong = {2, 20, 7, 10};
  const Row rows[] = {
      {"message proven", proven_20, proven_22, {1, 20, 1019}},
      {"message proven, no state", proven_20, std::nullopt, {1, 20, 1019}},
      {"message proven, state contradicted", proven_20, other_wrong, {1, 20, 1019}},
      {"no message", std::nullopt, proven_20, {1, 16, 0}},
      {"no message, state overwritten", std::nullopt, gone_9, {1, 9, 1008}},
      {"servers lost messages", gone_9, proven_20, {1, 9, 1008}},
      {"both overwritten", gone_9, gone_11, {1, 9, 1008}},
      {"message of an earlier incarnation", gone_9, other_proven, {2, 16, 0}},
      {"message contradicted, state later", wrong, other_proven, {2, 16, 0}},
      {"message contradicted, state overwritten", wrong, other_gone, {2, 11, 1010}},
      {"message contradicted, state proven: restored", wrong, proven_22, {0, 16, 0}},
      {"message contradicted, state of the same life overwritten", wrong, gone_11, {0, 16, 0}},
      {"both contradicted", wrong, other_wrong, {0, 16, 0}},
      {"message overwritten, state contradicted", gone_9, other_wrong, {0, 16, 0}},
      {"message overwritten, no state", gone_9, std::nullopt, {1, 9, 1008}},
      {"message contradicted, no state", wrong, std::nullopt, {0, 16, 0}},
      {"neither", std::nullopt, std::nullopt, {0, 16, 0}},
  };
  for (const Row& row : rows) {
    const StoreView view = {.header = HeaderAfter(25, 10), .unsafe = 1};
    PlainHashes hashes(15);
    EXPECT_EQ(FindPlace(view, row.message, row.state, {}, hashes), row.place) << row.what;
  }
}

// The store was salvaged into a new one, so the same records have other numbers.
TEST(RelayPlace, WithoutAProofTheLastSentRecordsAreRecognised) {
  const StoreView view = {.header = HeaderAfter(8, 10), .unsafe = 0};
  PlainHashes hashes(0, 1017);  // record 0 has the hash of record 17
  const Mark wrong = {1, 22, 1021, 0};
  EXPECT_EQ(FindPlace(view, wrong, wrong, {1018, 1019, 1020, 1021}, hashes), (Place{0, 5, 1021, true}));
  EXPECT_EQ(FindPlace(view, wrong, wrong, {1, 2, 3}, hashes), (Place{0, 0, 0, false}));
}

TEST(RelayPlace, ANewestMessageShowsAnotherSender) {
  qx::relay::MessageHead newest;
  newest.identity = {1};
  newest.session = 5;
  EXPECT_EQ(RivalOf(newest, {1}, 5), Rival::kNone);
  EXPECT_EQ(RivalOf(newest, {1}, 6), Rival::kNone);
  EXPECT_EQ(RivalOf(newest, {1}, 4), Rival::kLaterSession);
  EXPECT_EQ(RivalOf(newest, {2}, 6), Rival::kOtherMachine);
}

}  // namespace
