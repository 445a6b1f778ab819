// Formats the header of a trace entry: the text with which every entry begins.
//
//   2026-01-31 10:20:30.123 [0A1B2C3D] QXRemConXfer  text
//   2026-01-31 10:20:30.123 [0A1B2C3D]    51234 KB !QXRemConXfer  text
//
// The second form is used if memory traces are on.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

namespace qx::debug {

constexpr std::size_t kEntryHeaderCharsMax = 128;

// The text of a time stamp, formatted again only when the second changes.
//
// Threads: the owner of the trace facility's lock.
class StampText {
 public:
  // "yyyy-mm-dd hh:mm:ss.mmm" in local time; exactly this text when the time cannot be formatted. Valid until the next
  // call.
  const char* At(const timeval& now) noexcept;

  // The number of characters before the "." of the milliseconds in the last text; 0 when the time could not be
  // formatted.
  [[nodiscard]] std::size_t SecondLength() const noexcept { return is_formatted_ ? second_length_ : 0; }

 private:
  void FormatSecond(std::time_t second) noexcept;

  bool is_formatted_ = false;  // text_ is the text of second_
  std::time_t second_ = 0;
  std::size_t second_length_ = 0;
  char text_[32] = {};
};

struct EntryHeaderParts {
  const char* stamp;
  std::uint32_t thread;  // the low 32 bits of the thread's id
  const char* module;
  const std::size_t* resident_kilobytes;  // null if memory traces are off
};

// Writes the header and a NUL into `buffer`, cut to `size`, and returns its length.
std::size_t FormatEntryHeader(char* buffer, std::size_t size, const EntryHeaderParts& parts) noexcept;

// The header of entries without a module or memory size of their own. It is formatted again only if the second or the
// thread has changed. In most entries only the three digits of the milliseconds are new.
//
// Threads: the owner of the trace facility's lock.
class KeptHeader {
 public:
  // Writes the header of an entry made at `now` and a NUL into `buffer`, which is large enough for the longest header,
  // and returns its length. `module` must be the same in every call until Forget is called.
  std::size_t At(const timeval& now, std::uint32_t thread, const char* module, char* buffer) noexcept;
  void Forget() noexcept { length_ = 0; }

 private:
  StampText stamp_;
  std::time_t second_ = 0;
  std::uint32_t thread_ = 0;
  std::size_t length_ = 0;  // 0: nothing is kept
  char text_[kEntryHeaderCharsMax + 1] = {};
};

// The resident size of process `pid` in kilobytes, 0 when it cannot be read.
std::size_t ResidentKilobytes(std::int32_t pid) noexcept;

// "Sat Jan 31 10:20:30 2026\n" in local time; "\nwww mmm dd hh:mm:ss yyyy" when the time cannot be formatted.
void FormatStartTime(std::time_t time, char (&text)[32]) noexcept;

}  // namespace qx::debug
