// Rebuilds the worked examples of docs/trace-ring.md.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "debug/RingBufferSink.h"
#include "tests/support/Support.h"

namespace {

using qx::debug::RingBufferSink;
using qx::test::DocExample;

// A ring of 8192 bytes in the working directory, with a header block of one line and entries of 68 or 69 bytes.
class ExampleRing {
 public:
  ExampleRing() : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(directory_.Path());
    const auto result = ring_.Open(
        {.path = "log.qxtrace_a", .size = 8192, .start_time = "Sat Jan 31 10:20:30 2026", .entry_header = kHeader});
    EXPECT_EQ(result.failure, RingBufferSink::Failure::kNone);
    Put("# End of header.\n");
    ring_.LeaveGap();
  }
  ~ExampleRing() { std::filesystem::current_path(before_); }
  ExampleRing(const ExampleRing&) = delete;
  ExampleRing& operator=(const ExampleRing&) = delete;

  void Requests(int first, int last) {
    for (int i = first; i <= last; ++i) Put("request " + std::to_string(i) + ", level 1\n");
  }
  std::string Bytes() const { return qx::test::ReadFile("log.qxtrace_a"); }

 private:
  static constexpr const char* kHeader = "2026-01-31 10:20:30.123 [0A1B2C3D] QxTrace       ";

  void Put(const std::string& text) {
    const std::string entry = kHeader + text;
    if (!ring_.Fits(entry.size())) {
      EXPECT_TRUE(ring_.BeginWrap());
      ring_.Write(std::string(kHeader) + "# End of header.\n");
      ring_.EndWrap(entry.size());
    }
    ring_.Write(entry);
  }

  const qx::test::TempDir directory_;
  const std::filesystem::path before_;
  RingBufferSink ring_;
};

TEST(RingDoc, HeaderExample) {
  ExampleRing ring;
  ring.Requests(1, 3);
  EXPECT_EQ(ring.Bytes().substr(0, 640), DocExample("trace-ring.md", "ring-header"));
}

TEST(RingDoc, EntriesExample) {
  ExampleRing ring;
  ring.Requests(1, 3);
  const std::string bytes = ring.Bytes();
  const std::size_t position = std::stoul(bytes.substr(515, 16));
  EXPECT_EQ(bytes.substr(3072, position + 16 - 3072), DocExample("trace-ring.md", "ring-entries"));
  EXPECT_EQ(qx::test::HexDump(bytes.substr(position - 16, 48)), DocExample("trace-ring.md", "ring-end"));
}

TEST(RingDoc, WrapExample) {
  ExampleRing ring;
  ring.Requests(1, 76);
  const std::string bytes = ring.Bytes();
  EXPECT_EQ(bytes.substr(355, 16), "0000000000000001");
  const std::size_t position = std::stoul(bytes.substr(515, 16));
  const std::size_t next = bytes.find('\n', bytes.find('\n', position + 16) + 1) + 1;
  EXPECT_EQ(bytes.substr(3072, next - 3072) + "(...)\n" + bytes.substr(8192 - 140) + "\n",
            DocExample("trace-ring.md", "ring-wrap"));
}

}  // namespace
