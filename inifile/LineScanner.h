// Reads the lines of an open file through one fixed window. No line needs an allocation.
//
// A line is the C string that fgets would read into a buffer of 1024 bytes:
//   "key=1\n"               => "key=1\n"
//   "key=1" at the end      => "key=1"            the last line may have no line feed
//   "ke\0y=1\n"             => "ke"               a NUL hides the rest of the line and its line feed
//   1500 times "x", "\n"    => 1023 times "x", then 477 times "x" and "\n"
// The position counts all bytes of the file, also those after a NUL. The scanner does not open or write files, and does
// not interpret lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "inifile/MarkedLine.h"

namespace qx::inifile {

// Reads the lines of one file, from front to back.
//
// Threads: one thread at a time.
// Owns: nothing; the descriptor and the window belong to the caller and must outlive the scanner.
// Failure: if a read fails, the lines end there, and HasFailed returns true.
class LineScanner {
 public:
  static constexpr std::size_t kLineBytesMax = 1023;
  static constexpr std::size_t kWindowBytes = 16384;

  // Starts at the first byte of the file; the position of the descriptor does not matter and does not change. `window`
  // has space for at least kLineBytesMax bytes. [owning thread]
  LineScanner(int descriptor, std::span<char> window) noexcept;

  // The next line, or false at the end. `line` is valid until the next call; if the result is false, it is unchanged.
  // [owning thread]
  [[nodiscard]] bool Next(std::string_view& line);

  // Skips lines while `can_skip` returns true for them. `can_skip` gets each line without its line feed, but with the
  // bytes after a NUL. Lines that BytesToMarkedLine (inifile/MarkedLine.h) skips are skipped without a call of
  // `can_skip`, so it must be correct to skip them. The scan may stop before any line: SkipLines only saves calls of
  // Next. [owning thread]
  template <typename Predicate>
  void SkipLines(LineMark mark, Predicate can_skip) noexcept {
    std::string_view rest = unread_;
    for (;;) {
      const std::string_view longest = rest.substr(0, kLineBytesMax);
      const std::size_t length = longest.find('\n');
      if (length == std::string_view::npos || !can_skip(longest.substr(0, length))) break;
      rest.remove_prefix(length);
      rest.remove_prefix(BytesToMarkedLine(rest, mark));
    }
    position_ += unread_.size() - rest.size();
    unread_ = rest;
  }

  // The offset in the file of the first byte that was neither returned nor skipped. [owning thread]
  [[nodiscard]] std::uint64_t Position() const noexcept { return position_; }

  // Whether the lines ended because of a read error. [owning thread]
  [[nodiscard]] bool HasFailed() const noexcept { return has_failed_; }

 private:
  [[nodiscard]] std::size_t LengthOfLineAtFront() const noexcept;
  void ReadMore();

  int descriptor_;
  std::span<char> window_;
  std::string_view unread_;     // the part of the window that no line has taken yet
  std::uint64_t position_ = 0;  // of the first unread byte
  bool is_read_to_the_end_ = false;
  bool has_failed_ = false;
};

}  // namespace qx::inifile
