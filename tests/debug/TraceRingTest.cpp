// Tests that a ring file is read in the order of time: files of a plain writer of these tests, which knows the whole
// entries, and files of the facility itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>

#include "debug/RingFormat.h"
#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceSource.h"
#include "debug/tools/TraceUnroll.h"
#include "tests/debug/TraceClock.h"
#include "tests/debug/TraceFixture.h"
#include "tests/debug/TraceReading.h"
#include "tests/debug/TraceRingModel.h"

namespace qx::test {

namespace {

using debug::TraceEntry;
using debug::TraceFinding;
using debug::TracePart;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> TextsOf(const ReadBack& read) {
  std::vector<std::string> texts;
  for (const TraceEntry& entry : read.entries) {
    if (entry.kind == TraceEntry::Kind::kEntry) texts.push_back(TextOf(entry));
  }
  return texts;
}

std::string RandomText(std::mt19937_64& random, int number) {
  const auto below = [&random](int limit) { return static_cast<std::size_t>(random() % static_cast<unsigned>(limit)); };
  std::string text = "entry " + std::to_string(number) + " " + std::string(below(200), 'x');
  for (std::size_t lines = below(3); lines > 0; --lines) text += "\n" + std::string(below(60) + 1, 'y');
  return text;
}

// The numbers of "entry N" in the order of the entries.
std::vector<int> NumbersOf(const ReadBack& read) {
  std::vector<int> numbers;
  for (const std::string& text : TextsOf(read)) {
    if (text.starts_with("entry ")) numbers.push_back(std::stoi(text.substr(6)));
  }
  return numbers;
}

// The facility with its own ring.
class RealRing {
 public:
  explicit RealRing(std::uint32_t size) : size_(size) {
    (void)setup_.InitAtLevel(1);
    Reopen();
  }
  void Reopen() { EXPECT_TRUE(setup_.Trace().InitRingBuffer(Path().c_str(), size_)); }
  void Trace(const std::string& text) {
    clock_.Advance(1);
    setup_.Trace().Print(1, "\n%s", text.c_str());
  }
  void EndInit() { setup_.Trace().SetApplInitDone(); }
  std::string Path() const { return setup_.LogDir().File("log.qxtrace_a"); }
  ReadBack Read() const { return Unroll(ReadFile(Path())); }

 private:
  TraceClock clock_;
  TraceSetup setup_;
  std::uint32_t size_;
};

}  // namespace

TEST(TraceRing, RingThatHasNotWrappedIsReadAsItWasWritten) {
  RingModel ring(8192);
  ring.Create(2);
  ring.Put("one\nmore of one");
  ring.Put("two");
  const ReadBack read = Unroll(ring.Bytes());
  EXPECT_EQ(Shown(read),
            "newest: header 0\nnewest: header 1\nnewest: # End of header.\nnewest: one|more of one\n"
            "newest: two\n");
  EXPECT_THAT(read.findings, IsEmpty());
}

// The first read of the header gets a write position that has eight new digits and eight old ones.
class RingInTheMiddleOfAStore final : public debug::TraceSource {
 public:
  RingInTheMiddleOfAStore(std::string before, std::string after)
      : before_(std::move(before)), after_(std::move(after)) {}
  [[nodiscard]] std::uint64_t Size() const noexcept override { return after_.size(); }
  [[nodiscard]] std::size_t ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept override {
    const std::size_t bytes = debug::TraceMemory(after_).ReadAt(offset, to, size);
    constexpr std::size_t kSecondHalf = debug::kRingPositionOffset + 8;
    if (offset == 0 && reads_++ == 0) before_.copy(to + kSecondHalf, 8, kSecondHalf);
    return bytes;
  }

 private:
  std::string before_;
  std::string after_;
  mutable int reads_ = 0;
};

TEST(TraceRing, HalfStoredWritePositionIsReadAgain) {
  RingModel ring(8192);
  ring.Create(0);
  const std::string before = ring.Bytes();
  ring.Put("one");
  const auto position = [](const debug::TraceSource& source) { return ReadTraceRingHeader(source).write_position; };
  EXPECT_EQ(position(RingInTheMiddleOfAStore(before, ring.Bytes())), position(debug::TraceMemory(ring.Bytes())));
}

TEST(TraceRing, WholeEntriesAreInTheOrderOfTimeAfterEveryEntry) {
  const std::uint64_t seed = Seed("TraceRing");
  for (std::uint64_t round = 0; round < 10; ++round) {
    std::mt19937_64 random(seed + round);
    RingModel ring(5000 + random() % 6000);
    ring.Create(static_cast<int>(random() % 12));
    const bool keeps_init = round % 2 == 0;
    for (int i = 0; i < 250; ++i) {
      ring.Advance(1 + static_cast<int>(random() % 3));
      ring.Put(RandomText(random, i));
      if (i == 4 && keeps_init) ring.EndInit();
      const ReadBack read = Unroll(ring.Bytes());
      ASSERT_EQ(TextsOf(read), ring.WholeTexts()) << "seed " << seed + round << ", entry " << i;
      ASSERT_THAT(read.findings, IsEmpty());
    }
  }
}

TEST(TraceRing, SeveralRunsAreInTheOrderOfTime) {
  std::mt19937_64 random(Seed("TraceRingRuns"));
  RingModel ring(12000);
  ring.Create(4);
  for (int i = 0; i < 400; ++i) {
    ring.Advance(2);
    if (i % 90 == 60) ring.Reopen();
    ring.Put(RandomText(random, i));
    ASSERT_EQ(TextsOf(Unroll(ring.Bytes())), ring.WholeTexts()) << "entry " << i;
  }
}

TEST(TraceRing, PartsOfAWrappedRingAreNamed) {
  RingModel ring(6000);
  ring.Create(1);
  ring.Put("kept");
  ring.EndInit();
  for (int i = 0; ring.Wraps() == 0; ++i, ring.Advance(2)) ring.Put(std::to_string(i) + std::string(200, 'x'));
  ring.Put("newest");
  const ReadBack read = Unroll(ring.Bytes());
  EXPECT_EQ(read.entries[0].part, TracePart::kHead);
  EXPECT_EQ(TextOf(read.entries[0]), "kept\n");
  EXPECT_EQ(read.entries[1].part, TracePart::kHead);
  EXPECT_EQ(TextOf(read.entries[1]), "### End of initialization. ###\n");
  EXPECT_EQ(read.entries[2].kind, TraceEntry::Kind::kGap);
  EXPECT_EQ(read.entries[3].kind, TraceEntry::Kind::kPiece) << "the entry that the newest one has cut";
  EXPECT_EQ(read.entries[3].part, TracePart::kOlder);
  EXPECT_EQ(read.entries.back().part, TracePart::kNewest);
  EXPECT_EQ(TextOf(read.entries.back()), "newest\n");
}

TEST(TraceRing, WriterThatContinuesIsNoticedOnceTheRingHasWrapped) {
  RingModel ring(8192);
  ring.Create(1);
  ring.Put("one");
  const WriteThenRead filling(ring.Bytes());
  ring.Put("two");
  filling.Replace(ring.Bytes());
  EXPECT_FALSE(filling.Unroller().HasChanged());
  for (int i = 0; ring.Wraps() == 0; ++i) ring.Put("entry " + std::to_string(i) + std::string(200, 'x'));
  filling.Replace(ring.Bytes());
  EXPECT_TRUE(filling.Unroller().HasChanged());
  const WriteThenRead wrapped(ring.Bytes());
  EXPECT_FALSE(wrapped.Unroller().HasChanged());
  ring.Put("three");
  wrapped.Replace(ring.Bytes());
  EXPECT_TRUE(wrapped.Unroller().HasChanged());
}

TEST(TraceRing, TerminatorInATextIsALineOfIt) {
  RingModel ring(8192);
  ring.Create(0);
  ring.Put("one\n## TRACE-END ##\nmore");
  ring.Put("two");
  EXPECT_EQ(Shown(Unroll(ring.Bytes())), "newest: # End of header.\nnewest: one|## TRACE-END ##|more\nnewest: two\n");
}

TEST(TraceRing, EntryAfterTheWritePositionIsReturned) {
  RingModel ring(8192);
  ring.Create(0);
  ring.Put("one");
  const std::string before = ring.Bytes().substr(515, 16);
  ring.Put("two");
  std::string bytes = ring.Bytes();
  bytes.replace(515, 16, before);
  const ReadBack read = Unroll(bytes);
  EXPECT_EQ(Shown(read), "newest: # End of header.\nnewest: one\nnewest: two\n");
  EXPECT_THAT(read.findings, IsEmpty());
}

TEST(TraceRing, WrongWritePositionIsAFindingAndTheTerminatorIsFound) {
  RingModel ring(8192);
  ring.Create(2);
  ring.Put("one");
  ring.Put("two");
  for (const char* const number : {"0000000000000000", "0000000000001025", "9999999999999999", "-000000000000001",
                                   "00000000000000x0", "                ", "0000000000008192", "0000000000008191"}) {
    std::string bytes = ring.Bytes();
    bytes.replace(515, 16, number);
    const ReadBack read = Unroll(bytes);
    EXPECT_EQ(TextsOf(read), ring.WholeTexts()) << number;
    EXPECT_THAT(Kinds(read), ElementsAre(TraceFinding::Kind::kWritePosition)) << number;
  }
}

TEST(TraceRing, WrongNumbersOfTheHeaderAreFindings) {
  RingModel ring(8192);
  ring.Create(1);
  ring.Put("one");
  for (const std::size_t offset : {275U, 355U, 435U}) {
    std::string bytes = ring.Bytes();
    bytes.replace(offset, 16, "wrong");
    bytes.insert(offset + 5, 11, ' ');
    const ReadBack read = Unroll(bytes);
    EXPECT_EQ(TextsOf(read), ring.WholeTexts()) << offset;
    EXPECT_THAT(Kinds(read), Contains(TraceFinding::Kind::kRingHeader)) << offset;
  }
}

TEST(TraceRing, CutFileShowsTheRest) {
  RingModel ring(8192);
  ring.Create(1);
  for (int i = 0; i < 60; ++i, ring.Advance(2)) ring.Put("entry " + std::to_string(i) + std::string(100, 'x'));
  const ReadBack read = Unroll(ring.Bytes().substr(0, 5000));
  EXPECT_THAT(Kinds(read), Contains(TraceFinding::Kind::kRingHeader));
  EXPECT_FALSE(TextsOf(read).empty());
}

TEST(TraceRing, EveryPrefixAndEveryChangedByteIsReadToItsEnd) {
  RingModel ring(5000);
  ring.Create(1);
  for (int i = 0; i < 60; ++i, ring.Advance(1)) ring.Put("entry " + std::to_string(i) + "\nline");
  std::string bytes = ring.Bytes();
  for (std::size_t size = 0; size <= bytes.size(); size += 13) (void)Unroll(bytes.substr(0, size));
  for (std::size_t i = 0; i < bytes.size(); i += i < 640 ? 2 : 31) {
    const char kept = bytes[i];
    for (const char other : {'\0', '\n', '9'}) {
      bytes[i] = other;
      (void)Unroll(bytes);
    }
    bytes[i] = kept;
  }
}

TEST(TraceRing, RingOfTheFacilityHasNoGapAfterEveryEntry) {
  std::mt19937_64 random(Seed("TraceRingReal"));
  RealRing ring(24 << 10);
  std::size_t numbers_max = 0;
  for (int i = 0; i < 300; ++i) {
    if (i == 150) ring.Reopen();
    ring.Trace(RandomText(random, i));
    const ReadBack read = ring.Read();
    ASSERT_THAT(read.findings, IsEmpty()) << i << read.findings[0].text;
    const std::vector<int> numbers = NumbersOf(read);
    numbers_max = std::max(numbers_max, numbers.size());
    int expected = i - static_cast<int>(numbers.size());
    for (const int number : numbers) ASSERT_EQ(number, ++expected) << "entry " << i;
  }
  EXPECT_GT(numbers_max, 60U) << "the rest of the older cycle is returned, too";
}

TEST(TraceRing, RingOfTheFacilityKeepsTheTracesOfTheStart) {
  RealRing ring(2 << 20);
  for (int i = 0; i < 5; ++i) ring.Trace("entry " + std::to_string(i));
  ring.EndInit();
  int last = 5;
  for (; last < 2200; ++last) ring.Trace("entry " + std::to_string(last) + std::string(1000, 'x'));
  const ReadBack read = ring.Read();
  EXPECT_THAT(read.findings, IsEmpty());
  const std::vector<int> numbers = NumbersOf(read);
  ASSERT_GT(numbers.size(), 1000U);
  EXPECT_THAT(std::vector<int>(numbers.begin(), numbers.begin() + 5), ElementsAre(0, 1, 2, 3, 4));
  for (std::size_t i = 5; i < numbers.size(); ++i) {
    ASSERT_EQ(numbers[i], last - static_cast<int>(numbers.size()) + static_cast<int>(i));
  }
}

}  // namespace qx::test
