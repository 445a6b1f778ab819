// Checks the ring after every machine instruction of its writer: the guarantees of the ring must hold after each.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string>
#include <string_view>

#include "debug/RingFormat.h"
#include "tests/debug/RingFixture.h"

namespace {

using qx::test::RingSetup;

constexpr std::uint32_t kSteppedRingSize = 32768;
constexpr std::string_view kNewest = "the newest entry\n";

// The ring file as another process reads it while it is written.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    void* const map = ::mmap(nullptr, kSteppedRingSize, PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    if (map == MAP_FAILED) throw std::runtime_error("cannot map " + path);
    bytes_ = {static_cast<const char*>(map), kSteppedRingSize};
  }
  ~Reader() { ::munmap(const_cast<char*>(bytes_.data()), kSteppedRingSize); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Whether the file has other bytes than at the last call.
  bool HasChanged() {
    if (bytes_ == last_) return false;
    last_ = bytes_;
    return true;
  }

  std::size_t Position() const { return qx::debug::ReadRingNumber(bytes_.substr(515, 16)).value_or(0); }
  std::size_t Wraps() const { return qx::debug::ReadRingNumber(bytes_.substr(355, 16)).value_or(99999); }

  // The last line before the end of the newest entry, if it is a whole entry; else empty.
  std::string_view Newest() const {
    const std::string_view text = Text();
    if (text.size() < 1024 + RingSetup::kHeaderBytes) return {};
    const std::string_view line = text.substr(text.rfind('\n', text.size() - 2) + 1);
    return qx::test::StartsWithShape(line, "9999-99-99 99:99:99.999 [FFFFFFFF] QxTrace       ") ? line
                                                                                                : std::string_view();
  }

 private:
  // The bytes before the end of the newest entry; empty if this end cannot be found.
  std::string_view Text() const { return bytes_.substr(0, qx::test::EndOfNewest(bytes_)); }

  std::string_view bytes_;
  std::string last_;
};

// A child that writes one entry between two stops.
class SteppedWriter {
 public:
  explicit SteppedWriter(RingSetup& setup) : child_(::fork()) {
    if (child_ == 0) {
      ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      ::raise(SIGSTOP);
      setup.Trace().Print(1, "%s", kNewest.data());
      ::raise(SIGSTOP);
      ::_exit(0);
    }
    Wait();
  }
  ~SteppedWriter() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  SteppedWriter(const SteppedWriter&) = delete;
  SteppedWriter& operator=(const SteppedWriter&) = delete;

  // False when the writer is at its second stop.
  bool Step() {
    if (::ptrace(PTRACE_SINGLESTEP, child_, nullptr, nullptr) != 0) {
      throw std::runtime_error("the tests must be allowed to trace their own children (ptrace)");
    }
    Wait();
    return WIFSTOPPED(status_) && WSTOPSIG(status_) == SIGTRAP;
  }

 private:
  void Wait() { ::waitpid(child_, &status_, 0); }

  const pid_t child_;
  int status_ = 0;
};

TEST(DebugRingStep, EntryIsAbsentOrWholeAfterEveryInstruction) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSteppedRingSize));
  setup.Trace().Print(1, "before");
  Reader reader(setup.RingPath());
  const std::size_t position = reader.Position();
  SteppedWriter writer(setup);
  long steps = 0;
  for (bool was_whole = false; writer.Step(); ++steps) {
    if (!reader.HasChanged()) continue;
    const std::string_view entry = reader.Newest();
    const bool is_whole = entry.ends_with(kNewest);
    ASSERT_TRUE(is_whole || (!was_whole && entry.ends_with("before\n"))) << "step " << steps;
    was_whole = is_whole;
  }
  EXPECT_GT(steps, 500);
  EXPECT_EQ(reader.Position(), position + RingSetup::kHeaderBytes + kNewest.size());
}

TEST(DebugRingStep, NewestEntryIsFoundAfterEveryInstructionOfAWrap) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSteppedRingSize));
  setup.FillUpTo(60);
  Reader reader(setup.RingPath());
  const std::size_t old_position = reader.Position();
  SteppedWriter writer(setup);
  bool has_left = false;
  while (writer.Step()) {
    if (!reader.HasChanged()) continue;
    // The number of wraps rises before the position is set back. Otherwise a reader would treat the old cycle as bytes
    // that were never written.
    has_left = has_left || reader.Position() != old_position;
    ASSERT_TRUE(!has_left || reader.Wraps() == 1);
    ASSERT_NE(reader.Newest(), "") << "at " << reader.Position();
  }
  EXPECT_EQ(reader.Wraps(), 1U);
  EXPECT_TRUE(reader.Newest().ends_with(kNewest));
}

}  // namespace
