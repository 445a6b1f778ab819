// Walks the lines of an open file through one fixed window, without an allocation a line.
//
// A line is what fgets into a buffer of 1024 bytes leaves there as a C string:
//   "key=1\n"               => "key=1\n"
//   "key=1" at the end      => "key=1"            the last line may lack its line feed
//   "ke\0y=1\n"             => "ke"               a NUL hides the rest, line feed included
//   1500 times "x", "\n"    => 1023 times "x", then 477 times "x" and "\n"
// The position counts the bytes of the file, hidden ones included. The scanner does not open or write files, nor
// interpret lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "inifile/MarkedLine.h"

namespace qx::inifile {

// The lines of one file, front to back.
//
// Threads: one thread at a time.
// Owns: nothing; the descriptor and the window stay the caller's and outlive the scanner.
// Failure: a read that fails ends the file there; HasFailed shows it.
class LineScanner {
 public:
  static constexpr std::size_t kLineBytesMax = 1023;
  static constexpr std::size_t kWindowBytes = 16384;

  // Starts at the file's first byte whatever the descriptor's own position, which stays as it is. `window` has space
  // for at least kLineBytesMax bytes. [owning thread]
  LineScanner(int descriptor, std::span<char> window) noexcept;

  // The next line, or false at the end. `line` lives until the next call and is unchanged on false. [owning thread]
  [[nodiscard]] bool Next(std::string_view& line);

  // Skips lines as long as `can_skip` returns true for them. It gets each line without its line feed, but with what a
  // NUL hides. It must return true for plain text without the mark (inifile/MarkedLine.h), which is skipped without a
  // call. The scan may stop before any line: SkipLines only saves calls of Next. [owning thread]
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

  // Offset in the file of the byte after the line taken last. [owning thread]
  [[nodiscard]] std::uint64_t Position() const noexcept { return position_; }

  // Whether the file ended because it could not be read on. [owning thread]
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
