// Tests writers that are killed at random moments, and writers whose file calls fail: the promises of CReportFileBase
// must hold, and the files must be those that CReportFileBase writes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sdk/Writer.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Shared.h"

namespace qx::test {
namespace {

constexpr std::uint32_t kSlots = 16;

std::string TextOf(std::uint64_t number) {
  return std::to_string(number) + " " + std::string(number * 7 % 11, 'x') + std::to_string(number);
}

// Appends batches of one to ten numbered records until it is killed.
[[noreturn]] void AppendForever(const StoreFiles& files, std::uint64_t next, std::atomic<std::uint64_t>& acknowledged) {
  Writer writer;
  if (writer.Open(files.Base(), kSlots).Failed()) _exit(1);
  for (;;) {
    std::vector<std::string> texts;
    for (std::uint64_t left = next % 10 + 1; left > 0; --left) texts.push_back(TextOf(next++));
    if (writer.Append(texts).Failed()) _exit(1);
    acknowledged = next - 1;
  }
}

std::uint64_t NumberOf(const std::string& line) {
  const std::uint64_t number = std::strtoull(line.c_str(), nullptr, 10);
  return line == TextOf(number) + "\r\n" ? number : 0;
}

std::vector<std::uint64_t> NumbersIn(const StoreFiles& files) {
  std::vector<std::uint64_t> numbers;
  for (const std::string& line : ReadAll(files)) numbers.push_back(NumberOf(line));
  return numbers;
}

// Before the next writer opens the report, the records of at most one part may be in place of the oldest ones. All
// other records must be there.
void ExpectAtMostOnePartMisplaced(const std::vector<std::uint64_t>& numbers, std::uint64_t acknowledged) {
  std::size_t first = 0;
  while (first < numbers.size() && numbers[first] > acknowledged) ++first;
  for (std::size_t i = 1; i < first; ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
  for (std::size_t i = first + 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
  if (first < numbers.size()) {
    EXPECT_GE(numbers.back(), acknowledged);
  }
}

// The next writer has counted the records: a reader finds the newest ones, whole, in order and without a gap.
void ExpectNewestInOrder(const std::vector<std::uint64_t>& numbers, std::uint64_t acknowledged) {
  ASSERT_FALSE(numbers.empty());
  EXPECT_GE(numbers.back(), acknowledged);
  for (std::size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
}

TEST(SdkWriterKilled, LosesNoAcknowledgedRecordAndMisplacesAtMostOnePart) {
  const StoreFiles files;
  const Shared<std::atomic<std::uint64_t>> shared(0U);
  std::atomic<std::uint64_t>& acknowledged = *shared;
  std::mt19937_64 random(Seed("SdkWriterKilled"));
  std::uint64_t next = 1;
  for (int round = 0; round < 60 && !testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) AppendForever(files, next, acknowledged);
    while (acknowledged < next && waitpid(child, nullptr, WNOHANG) == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer was refused";
    ExpectAtMostOnePartMisplaced(NumbersIn(files), acknowledged);
    Writer again;
    ASSERT_FALSE(again.Open(files.Base(), kSlots).Failed());
    const std::vector<std::uint64_t> numbers = NumbersIn(files);
    ExpectNewestInOrder(numbers, acknowledged);
    next = numbers.back() + 1;
  }
  EXPECT_GT(next, 300U);
}

// A writer that is killed before its nth write. From then on nothing is written, and nothing is cut.
class KilledBefore {
 public:
  explicit KilledBefore(int nth)
      : writes_({.call = FileCall::kWriteAt, .nth = nth, .times = kAlways, .error = EIO}),
        vectors_({.call = FileCall::kWriteVectorAt, .nth = nth, .times = kAlways, .error = EIO}),
        truncations_({.call = FileCall::kTruncate, .times = kAlways, .error = EIO}) {}
  bool HasEndedTheWriter() const { return writes_.HasFailed() || vectors_.HasFailed(); }

 private:
  FailingCall writes_;
  FailingCall vectors_;
  FailingCall truncations_;
};

std::vector<std::string> TextsFrom(std::uint64_t first, std::uint64_t count) {
  std::vector<std::string> texts;
  for (std::uint64_t number = first; number < first + count; ++number) texts.push_back(TextOf(number));
  return texts;
}

void AppendWithTheClassBelow(const StoreFiles& files, const std::vector<std::string>& texts) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 5));
  for (const std::string& text : texts) (void)store.writeLine(text.c_str());
}

std::string BothFiles(const StoreFiles& files) { return files.IndexBytes() + "|" + files.DataBytes(); }

// The number of records before the kill: a ring of five that fills, is full, wraps, and whose data file restarts.
constexpr std::uint64_t kPhases[] = {1, 4, 5, 7, 9, 10, 12};

TEST(SdkWriterKilled, SinglesLeaveTheFilesOfTheClassBelowAtEachWrite) {
  for (const std::uint64_t before : kPhases) {
    for (int nth = 1; nth <= 6; ++nth) {
      const StoreFiles files;
      const StoreFiles single_files;
      for (const StoreFiles* each : {&files, &single_files}) AppendWithTheClassBelow(*each, TextsFrom(1, before));
      {
        Writer writer;
        ASSERT_FALSE(writer.OpenExisting(files.Base()).Failed());
        const KilledBefore killed(nth);
        for (const std::string& text : TextsFrom(100, 3)) (void)writer.Append(text).Failed();
        ASSERT_TRUE(killed.HasEndedTheWriter());
      }
      {
        const KilledBefore killed(nth);
        AppendWithTheClassBelow(single_files, TextsFrom(100, 3));
      }
      ASSERT_EQ(BothFiles(files), BothFiles(single_files)) << before << " records, killed before write " << nth;
    }
  }
}

// The next writer appends the records that its reader does not find. Then the files must be those of CReportFileBase
// without a kill.
TEST(SdkWriterKilled, BatchesEndInTheFilesOfTheClassBelowAfterEachWrite) {
  for (const std::uint64_t before : kPhases) {
    for (int nth = 1; nth <= 6; ++nth) {
      const StoreFiles files;
      const StoreFiles single_files;
      AppendWithTheClassBelow(files, TextsFrom(1, before));
      {
        Writer writer;
        ASSERT_FALSE(writer.OpenExisting(files.Base()).Failed());
        const KilledBefore killed(nth);
        (void)writer.Append(TextsFrom(before + 1, 8)).Failed();
      }
      Writer next;
      ASSERT_FALSE(next.OpenExisting(files.Base()).Failed());
      const std::uint64_t stored = files.Header().elementCount;
      ASSERT_FALSE(next.Append(TextsFrom(stored + 1, before + 8 - stored)).Failed());
      AppendWithTheClassBelow(single_files, TextsFrom(1, before + 8));
      ASSERT_EQ(BothFiles(files), BothFiles(single_files)) << before << " records, killed before write " << nth;
    }
  }
}

// Runs the work again and again: first its first call of a kind fails, then its second one, and so on. The stored
// records must be those that the errors name. After one more record, index and records must be those of CReportFileBase
// for the same records.
void SweepWrites(FileCall call, int error) {
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE("call " + std::to_string(nth) + ", error " + std::to_string(error));
    const StoreFiles files;
    std::vector<std::string> stored;
    bool has_failed = false;
    {
      std::optional<FailingCall> fault;
      fault.emplace(FileFault{.call = call, .nth = nth, .error = error});
      Writer writer;
      bool is_open = !writer.Open(files.Base(), 5).Failed();
      for (std::uint64_t batch = 0; is_open && batch < 6; ++batch) {
        std::vector<std::string> texts;
        for (std::uint64_t i = 0; i <= batch; ++i) texts.push_back(TextOf(100 * batch + i));
        const Error result = writer.Append(texts);
        const std::size_t count = result.Failed() ? result.record : texts.size();
        stored.insert(stored.end(), texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(count));
      }
      has_failed = fault->HasFailed();
      fault.reset();
      if (is_open) {
        ASSERT_FALSE(writer.Append("last").Failed());
      }
    }
    if (stored.empty()) {
      Writer again;
      ASSERT_FALSE(again.Open(files.Base(), 5).Failed());
      ASSERT_FALSE(again.Append("last").Failed());
    }
    stored.emplace_back("last");
    const StoreFiles single_files;
    CReportFileBase single;
    ASSERT_TRUE(single.Open(single_files.Path(), 5));
    for (const std::string& text : stored) ASSERT_TRUE(single.writeLine(text.c_str()));
    ASSERT_EQ(files.IndexBytes(), single_files.IndexBytes());
    ASSERT_EQ(ReadAll(files), ReadAll(single_files));
    if (!has_failed) {
      ASSERT_EQ(files.DataBytes(), single_files.DataBytes());
      return;
    }
  }
}

TEST(SdkWriterFault, EachFailingWriteKeepsWhatTheErrorsSay) {
  for (const int error : {ENOSPC, EIO}) SweepWrites(FileCall::kWriteAt, error);
  SweepWrites(FileCall::kWriteVectorAt, ENOSPC);
}

TEST(SdkWriterFault, InterruptedAndShortWritesAreContinued) {
  SweepWrites(FileCall::kWriteAt, EINTR);
  SweepWrites(FileCall::kWriteAt, 0);
}

TEST(SdkWriterFault, EachFailingOpenIsAnErrorOrIsTriedAgain) {
  for (const int error : {EMFILE, EIO, EACCES}) SweepWrites(FileCall::kOpen, error);
}

}  // namespace
}  // namespace qx::test
