// Tests that a follower returns every entry of a live writer once and in order, across wraps and restarts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "debug/tools/TraceFollow.h"
#include "tests/debug/TraceClock.h"
#include "tests/debug/TraceFixture.h"
#include "tests/debug/TraceReading.h"

namespace qx::test {

namespace {

using debug::TraceEntry;
using debug::TraceFollowEvent;
using testing::ElementsAre;
using testing::IsEmpty;

// The entries that a follower has returned so far, as one text each.
class Followed {
 public:
  explicit Followed(const std::string& path, bool from_now = false, std::chrono::milliseconds settled = {})
      : follower_(path, from_now, settled) {
    EXPECT_EQ(follower_.Open(), 0);
  }

  // Polls until nothing is pending.
  void Poll() {
    for (bool is_pending = true; is_pending;) is_pending = PollOnce();
  }

  bool PollOnce() {
    const debug::TracePoll poll = follower_.Poll();
    for (const TraceFollowEvent& event : poll.events) Take(event);
    return poll.is_pending;
  }

  // The returned texts that begin with "entry", without their further lines.
  const std::vector<std::string>& Texts() const { return texts_; }
  int Restarts() const { return restarts_; }
  std::uint64_t LostBytes() const { return lost_bytes_; }
  // True if entries were lost after the text of this index, or if lines belong to no known entry.
  bool HasLossAfter(std::size_t index) const { return losses_after_.contains(index + 1); }
  void Forget() { texts_.clear(); }

 private:
  void Take(const TraceFollowEvent& event) {
    if (event.kind == TraceFollowEvent::Kind::kRestart) ++restarts_;
    if (event.kind == TraceFollowEvent::Kind::kLost) {
      lost_bytes_ += event.bytes;
      losses_after_.insert(texts_.size());
    }
    if (event.entry.kind == TraceEntry::Kind::kPiece) losses_after_.insert(texts_.size());
    if (event.kind != TraceFollowEvent::Kind::kEntry) return;
    const std::string text = TextOf(event.entry);
    if (event.entry.kind == TraceEntry::Kind::kRest && !texts_.empty()) texts_.back() += text;
    if (event.entry.kind == TraceEntry::Kind::kEntry && text.starts_with("entry ")) texts_.push_back(text);
  }

  debug::TraceFollower follower_;
  std::vector<std::string> texts_;
  int restarts_ = 0;
  std::uint64_t lost_bytes_ = 0;
  std::set<std::size_t> losses_after_;
};

std::string NumberedText(int number, std::size_t extra) {
  return "entry " + std::to_string(number) + " " + std::string(extra, 'x') +
         (number % 5 == 0 ? "\nmore of " + std::to_string(number) : "") + "\n";
}

// Writes numbered entries into a log or a ring.
class Writer {
 public:
  explicit Writer(unsigned log_bytes, std::uint32_t ring_bytes = 0) : ring_bytes_(ring_bytes) {
    setup_.SetEnv("QX_LOG_FILE_MAX_SIZE", std::to_string(log_bytes).c_str());
    Start();
  }
  void Start() {
    EXPECT_TRUE(setup_.InitAtLevel(1));
    if (ring_bytes_ != 0) {
      EXPECT_TRUE(setup_.Trace().InitRingBuffer(Path().c_str(), ring_bytes_));
    } else {
      setup_.Trace().SetApplInitDone();
    }
  }
  void Write(int count) {
    for (int i = 0; i < count; ++i) {
      clock_.Advance(step_ms_);
      written_.push_back(NumberedText(next_, random_() % 80));
      setup_.Trace().Print(1, "\n%s", written_.back().c_str());
      ++next_;
    }
  }
  std::string Path() const { return ring_bytes_ != 0 ? setup_.LogDir().File("ring_a") : setup_.LogPath(); }
  const std::vector<std::string>& Written() const { return written_; }

  void SetStep(int milliseconds) { step_ms_ = milliseconds; }

 private:
  TraceClock clock_;
  TraceSetup setup_;
  int step_ms_ = 1;
  std::uint32_t ring_bytes_;
  std::mt19937 random_{7};
  std::vector<std::string> written_;
  int next_ = 0;
};

// Every text must have been written, and must come once and in order. Exactly the missing texts must be reported as
// lost.
void ExpectInOrderAndLossesReported(const Followed& followed, const std::vector<std::string>& written) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < followed.Texts().size(); ++i) {
    const std::string& text = followed.Texts()[i];
    const auto is_text = [&](const std::string& whole) {  // further lines may be among the lost ones
      return followed.HasLossAfter(i) ? whole.starts_with(text) : whole == text;
    };
    std::size_t at = next;
    while (at < written.size() && !is_text(written[at])) ++at;
    ASSERT_LT(at, written.size()) << "repeated, out of order or cut: " << text << "after " << next;
    EXPECT_TRUE(at == next || i == 0 || followed.HasLossAfter(i - 1))
        << next << " to " << at << " are missing without a report";
    next = at + 1;
  }
  EXPECT_EQ(next, written.size()) << "the newest entry is returned";
}

struct Setting {
  unsigned log_bytes;
  std::uint32_t ring_bytes;
};

class TraceFollow : public testing::TestWithParam<Setting> {};

}  // namespace

TEST_P(TraceFollow, EveryEntryIsReturnedOnceAcrossWraps) {
  Writer writer(GetParam().log_bytes, GetParam().ring_bytes);
  writer.Write(3);
  Followed followed(writer.Path());
  std::mt19937 random(static_cast<unsigned>(Seed("TraceFollow")));
  for (int round = 0; round < 300; ++round) {
    writer.SetStep(round < 150 ? 0 : 1);  // in the first half all stamps are equal
    writer.Write(static_cast<int>(random() % 12));
    followed.Poll();
    ASSERT_EQ(followed.Texts(), writer.Written()) << "round " << round;
  }
  EXPECT_EQ(followed.LostBytes(), 0U);
  EXPECT_EQ(followed.Restarts(), 0);
}

TEST_P(TraceFollow, EntriesAreInOrderAndLossesAreReported) {
  std::mt19937 random(static_cast<unsigned>(Seed("TraceFollow")));
  for (int run = 0; run < 20; ++run) {
    Writer writer(GetParam().log_bytes, GetParam().ring_bytes);
    Followed followed(writer.Path());
    for (int round = 0; round < 50; ++round) {
      writer.Write(static_cast<int>(random() % 12 * (random() % 30)));
      (void)followed.PollOnce();
    }
    writer.Write(writer.Written().size() % 5 == 0 ? 2 : 1);  // further lines of the newest entry would not be returned
    followed.Poll();
    ExpectInOrderAndLossesReported(followed, writer.Written());
  }
}

TEST_P(TraceFollow, FromNowLeavesOutExistingEntries) {
  Writer writer(GetParam().log_bytes, GetParam().ring_bytes);
  writer.Write(200);
  Followed followed(writer.Path(), true);
  followed.Poll();
  EXPECT_THAT(followed.Texts(), IsEmpty());
  writer.Write(5);
  followed.Poll();
  EXPECT_EQ(followed.Texts(), std::vector<std::string>(writer.Written().end() - 5, writer.Written().end()));
}

TEST_P(TraceFollow, LossIsReportedIfTheWriterLapsTheReader) {
  Writer writer(GetParam().log_bytes, GetParam().ring_bytes);
  Followed followed(writer.Path());
  writer.Write(3);
  followed.Poll();
  followed.Forget();
  writer.Write(2000);
  followed.Poll();
  std::size_t written_bytes = 0;
  for (const std::string& text : writer.Written()) written_bytes += text.size() + TraceSetup::kHeaderBytes;
  EXPECT_GT(followed.LostBytes(), written_bytes / 2);
  EXPECT_LT(followed.LostBytes(), written_bytes);
  const auto& texts = followed.Texts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts, std::vector<std::string>(writer.Written().end() - static_cast<std::ptrdiff_t>(texts.size()),
                                            writer.Written().end()));
  followed.Forget();
  writer.Write(4);
  followed.Poll();
  EXPECT_EQ(followed.Texts(), std::vector<std::string>(writer.Written().end() - 4, writer.Written().end()));
}

INSTANTIATE_TEST_SUITE_P(Files, TraceFollow,
                         testing::Values(Setting{4000, 0}, Setting{20000, 0}, Setting{51200, 40000}),
                         [](const auto& named) {
                           return (named.param.ring_bytes != 0 ? "Ring" : "Log") +
                                  std::to_string(named.param.log_bytes);
                         });

TEST(TraceFollowRestart, LogThatIsStartedOverIsFollowedFromItsBeginning) {
  Writer writer(4000);
  writer.Write(20);
  Followed followed(writer.Path());
  followed.Poll();
  writer.Start();
  followed.Poll();
  followed.Forget();
  writer.Write(30);
  followed.Poll();
  EXPECT_EQ(followed.Restarts(), 1);
  EXPECT_EQ(followed.Texts(), std::vector<std::string>(writer.Written().begin() + 20, writer.Written().end()));
}

TEST(TraceFollowRestart, RestartBetweenTwoSnapshotsIsNoticedForEverySize) {
  Writer writer(100000);
  writer.Write(5);
  Followed followed(writer.Path());
  followed.Poll();
  followed.Forget();
  writer.Start();
  writer.Write(50);
  followed.Poll();
  EXPECT_EQ(followed.Restarts(), 1);
  EXPECT_EQ(followed.Texts(), std::vector<std::string>(writer.Written().begin() + 5, writer.Written().end()));
}

TEST(TraceFollowRestart, RingOfTheNextRunContinuesWithoutARestart) {
  Writer writer(51200, 40000);
  writer.Write(20);
  Followed followed(writer.Path());
  followed.Poll();
  writer.Start();
  writer.Write(20);
  followed.Poll();
  EXPECT_EQ(followed.Restarts(), 0);
  EXPECT_EQ(followed.Texts(), writer.Written());
}

TEST(TraceFollowRestart, FileThatIsReplacedIsFollowedAfterItsLastEntries) {
  const TempDir dir;
  const std::string entry = "2026-01-31 10:20:30.001 [0A1B2C3D] App           entry ";
  WriteFile(dir.File("log"), entry + "1\n");
  Followed followed(dir.File("log"));
  followed.Poll();
  WriteFile(dir.File("log"), entry + "1\n" + entry + "2\n");
  std::filesystem::rename(dir.File("log"), dir.File("old"));
  followed.Poll();
  WriteFile(dir.File("log"), entry + "3\n");
  followed.Poll();
  EXPECT_THAT(followed.Texts(), ElementsAre("entry 1\n", "entry 2\n", "entry 3\n"));
  EXPECT_EQ(followed.Restarts(), 1);
}

TEST(TraceFollowRestart, RingThatIsStillBeingMadeIsFollowedFromItsFirstEntry) {
  Writer writer(51200, 40000);
  writer.Write(3);
  const std::string ring = ReadFile(writer.Path());
  const TempDir dir;
  WriteFile(dir.File("ring"), "");
  Followed followed(dir.File("ring"));
  for (const std::size_t size : {0U, 300U, 1024U, 5000U, 39999U, 40000U}) {
    WriteFile(dir.File("ring"), ring.substr(0, size));
    followed.Poll();
    if (size < 5001) {
      EXPECT_THAT(followed.Texts(), IsEmpty()) << size;
    }
  }
  EXPECT_EQ(followed.Texts(), writer.Written());
}

TEST(TraceFollowRestart, PartOfAnEntryIsNotReturned) {
  const TempDir dir;
  const std::string entry = "2026-01-31 10:20:30.001 [0A1B2C3D] App           entry ";
  WriteFile(dir.File("log"), entry + "1\n" + entry);
  Followed followed(dir.File("log"));
  followed.Poll();
  EXPECT_THAT(followed.Texts(), ElementsAre("entry 1\n"));
  WriteFile(dir.File("log"), entry + "1\n" + entry + "2\n");
  followed.Poll();
  EXPECT_THAT(followed.Texts(), ElementsAre("entry 1\n", "entry 2\n"));
}

TEST(TraceFollowRestart, EntryIsReturnedOnceItIsWholeAlsoAfterALongTime) {
  const TempDir dir;
  const std::string entry = "2026-01-31 10:20:30.001 [0A1B2C3D] App           entry ";
  WriteFile(dir.File("log"), entry + "1\n" + entry + "2 and what stood there\n");
  Followed followed(dir.File("log"), false, std::chrono::hours(1));
  for (int poll = 0; poll < 10; ++poll) EXPECT_TRUE(followed.PollOnce());
  EXPECT_THAT(followed.Texts(), ElementsAre("entry 1\n"));
  WriteFile(dir.File("log"), entry + "1\n" + entry + "2 and what belongs here\n" + entry + "3\n");
  EXPECT_TRUE(followed.PollOnce());
  EXPECT_THAT(followed.Texts(), ElementsAre("entry 1\n", "entry 2 and what belongs here\n"));
}

TEST(TraceFollowRestart, NewestEntryOfAReplacedFileIsReturned) {
  const TempDir dir;
  const std::string entry = "2026-01-31 10:20:30.001 [0A1B2C3D] App           entry ";
  WriteFile(dir.File("log"), entry + "1\n");
  Followed followed(dir.File("log"), false, std::chrono::hours(1));
  EXPECT_TRUE(followed.PollOnce());
  ASSERT_EQ(std::rename(dir.File("log").c_str(), dir.File("older").c_str()), 0);
  WriteFile(dir.File("log"), entry + "2\n" + entry + "3\n");
  EXPECT_TRUE(followed.PollOnce());
  EXPECT_TRUE(followed.PollOnce());
  EXPECT_THAT(followed.Texts(), ElementsAre("entry 1\n", "entry 2\n"));
}

// A log can grow while it is read, so its size may be too small. Files of /proc have a size of 0.
TEST(TraceFollowRestart, LogIsReadToItsEndWhateverItsReportedSize) {
  debug::TraceFile file;
  ASSERT_EQ(file.Open("/proc/version"), 0);
  ASSERT_EQ(file.Status().value().st_size, 0);
  const auto follower = debug::MakeLogFollower(false, {});
  std::string text;
  for (int i = 0; i < 2; ++i) {
    debug::TracePoll poll;
    follower->Poll(file, false, poll);
    for (const TraceFollowEvent& event : poll.events) text += TextOf(event.entry);
  }
  EXPECT_EQ(text, ReadFile("/proc/version"));
}

TEST(TraceFollowRestart, EntryOverOlderBytesIsReturnedOnceItIsWhole) {
  Writer writer(4000);
  writer.Write(100);
  const std::string before = ReadFile(writer.Path());
  writer.Write(1);
  const std::string after = ReadFile(writer.Path());
  ASSERT_EQ(before.size(), after.size());
  const auto differs = std::mismatch(before.begin(), before.end(), after.begin()).first - before.begin();
  const std::size_t half = static_cast<std::size_t>(differs) + 20;

  const TempDir dir;
  WriteFile(dir.File("log"), before);
  Followed followed(dir.File("log"));
  followed.Poll();
  followed.Forget();
  WriteFile(dir.File("log"), after.substr(0, half) + before.substr(half));
  EXPECT_TRUE(followed.PollOnce());
  WriteFile(dir.File("log"), after);
  followed.Poll();
  EXPECT_THAT(followed.Texts(), ElementsAre(writer.Written().back()));
}

// The writer never waits for the reader. The reader must return each entry once and in order, or report it as lost.
class TraceFollowThreads : public testing::TestWithParam<Setting> {};

TEST_P(TraceFollowThreads, LiveWriterIsFollowedWithoutRepeatsOrSilentLosses) {
  Writer writer(GetParam().log_bytes, GetParam().ring_bytes);
  // The time is longer than kSettled: if other processes use the processor, a writer may stay in the middle of a write.
  Followed followed(writer.Path(), false, std::chrono::seconds(1));
  std::atomic<bool> is_done{false};
  std::thread thread([&] {
    for (int i = 0; i < 400; ++i) {
      writer.Write(5);
      ::usleep(50);
    }
    is_done = true;
  });
  while (!is_done) (void)followed.PollOnce();
  thread.join();
  followed.Poll();
  ExpectInOrderAndLossesReported(followed, writer.Written());
}

INSTANTIATE_TEST_SUITE_P(Files, TraceFollowThreads, testing::Values(Setting{20000, 0}, Setting{51200, 200000}),
                         [](const auto& named) { return named.param.ring_bytes != 0 ? "Ring" : "Log"; });

}  // namespace qx::test
