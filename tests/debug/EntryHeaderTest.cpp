#include "debug/EntryHeader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <limits>
#include <string>

#include "tests/support/Support.h"

namespace {

using qx::debug::EntryHeaderParts;
using qx::debug::StampText;

// Until the end of the scope, local time is that of TZ.
class ScopedZone {
 public:
  explicit ScopedZone(const char* zone) : zone_("TZ", zone) { ::tzset(); }
  ~ScopedZone() { ::tzset(); }

 private:
  qx::test::ScopedEnv zone_;
};

std::string Header(const EntryHeaderParts& parts, std::size_t size = 129) {
  char buffer[256];
  std::memset(buffer, '#', sizeof buffer);
  const std::size_t length = qx::debug::FormatEntryHeader(buffer, size, parts);
  EXPECT_EQ(buffer[size], '#');
  if (size > 0) {
    EXPECT_EQ(buffer[length], '\0');
  }
  return std::string(buffer, length);
}

TEST(EntryHeader, StampModuleAndThreadAreInFixedColumns) {
  EXPECT_EQ(Header({"2026-01-31 10:20:30.123", 0x0A1B2C3D, "QXRemConXfer", nullptr}),
            "2026-01-31 10:20:30.123 [0A1B2C3D] QXRemConXfer  ");
  EXPECT_EQ(Header({"S", 0, "", nullptr}), "S [00000000]               ");
  EXPECT_EQ(Header({"S", 0xFFFFFFFF, "Thirteen_char", nullptr}), "S [FFFFFFFF] Thirteen_char ");
  EXPECT_EQ(Header({"S", 1, "Fourteen_chars", nullptr}), "S [00000001] Fourteen_chars ");
}

TEST(EntryHeader, MemoryTracesAddTheSizeInEightColumns) {
  const std::size_t kilobytes = 51234;
  const std::size_t large = 1234567890123;
  EXPECT_EQ(Header({"S", 1, "Mod", &kilobytes}), "S [00000001]    51234 KB !Mod           ");
  EXPECT_EQ(Header({"S", 1, "Mod", &large}), "S [00000001] 1234567890123 KB !Mod           ");
}

TEST(EntryHeader, IsCutToItsBuffer) {
  EXPECT_EQ(Header({"S", 1, std::string(200, 'm').c_str(), nullptr}), "S [00000001] " + std::string(128 - 13, 'm'));
  EXPECT_EQ(Header({"S", 1, "Mod", nullptr}, 3), "S ");
  EXPECT_EQ(Header({"S", 1, "Mod", nullptr}, 1), "");
  EXPECT_EQ(Header({"S", 1, "Mod", nullptr}, 0), "");
}

TEST(EntryHeader, StampIsLocalTimeWithMilliseconds) {
  const ScopedZone zone("UTC-2");
  StampText stamp;
  EXPECT_STREQ(stamp.At({1769854830, 123999}), "2026-01-31 12:20:30.123");
  EXPECT_STREQ(stamp.At({1769854830, 999999}), "2026-01-31 12:20:30.999");
  EXPECT_STREQ(stamp.At({1769854831, 1000}), "2026-01-31 12:20:31.001");
  EXPECT_STREQ(stamp.At({1769854830, 0}), "2026-01-31 12:20:30.000");
  EXPECT_STREQ(stamp.At({0, 0}), "1970-01-01 02:00:00.000");
}

TEST(EntryHeader, StampThatCannotBeFormattedIsTheLiteralPattern) {
  StampText stamp;
  EXPECT_STREQ(stamp.At({std::numeric_limits<std::time_t>::max(), 0}), "yyyy-mm-dd hh:mm:ss.mmm");
  EXPECT_STREQ(stamp.At({61'000'000'000'000, 0}), "yyyy-mm-dd hh:mm:ss.mmm");  // a year of seven digits: too long
  const ScopedZone zone("UTC0");
  EXPECT_STREQ(stamp.At({1769854830, 0}), "2026-01-31 10:20:30.000");
}

TEST(EntryHeader, StartTimeIsTheTextOfAsctime) {
  const ScopedZone zone("UTC0");
  char text[32];
  qx::debug::FormatStartTime(1769854830, text);
  EXPECT_STREQ(text, "Sat Jan 31 10:20:30 2026\n");
  qx::debug::FormatStartTime(std::numeric_limits<std::time_t>::max(), text);
  EXPECT_STREQ(text, "\nwww mmm dd hh:mm:ss yyyy");
}

TEST(EntryHeader, ResidentSizeIsThatOfTheProcessAndZeroWhenUnknown) {
  EXPECT_GT(qx::debug::ResidentKilobytes(::getpid()), 500U);
  EXPECT_EQ(qx::debug::ResidentKilobytes(std::numeric_limits<std::int32_t>::max()), 0U);
}

}  // namespace
