// The fixed-width text that starts every trace entry.
//
//   2026-01-31 10:20:30.123 [0A1B2C3D] QXRemConXfer  text
//   2026-01-31 10:20:30.123 [0A1B2C3D]    51234 KB !QXRemConXfer  text
//
// The second form is that of memory traces.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace qx::debug {

constexpr std::size_t kEntryHeaderCharsMax = 128;

// The text of a time stamp, formatted anew only when the second changes.
//
// Threads: the owner of the trace facility's lock.
class StampText {
 public:
  // "yyyy-mm-dd hh:mm:ss.mmm" in local time; exactly this text when the time cannot be formatted. It lives until the
  // next call.
  const char* At(const timeval& now) noexcept;

 private:
  void FormatSecond(std::time_t second) noexcept;
  void PutMilliseconds(unsigned milliseconds) noexcept;

  bool is_formatted_ = false;  // text_ holds the text of second_
  std::time_t second_ = 0;
  std::size_t second_length_ = 0;
  char text_[32] = {};
};

struct EntryHeaderParts {
  const char* stamp;
  std::uint32_t thread;  // the low 32 bits of the thread's id
  const char* module;
  const std::size_t* resident_kilobytes;  // null: without memory traces
};

// Writes the header and a NUL into `buffer`, cut to `size`, and returns its length.
std::size_t FormatEntryHeader(char* buffer, std::size_t size, const EntryHeaderParts& parts) noexcept;

// The resident size of process `pid` in kilobytes, 0 when it cannot be read.
std::size_t ResidentKilobytes(std::int32_t pid) noexcept;

// "Sat Jan 31 10:20:30 2026\n" in local time; "\nwww mmm dd hh:mm:ss yyyy" when the time cannot be formatted.
void FormatStartTime(std::time_t time, char (&text)[32]) noexcept;

}  // namespace qx::debug
