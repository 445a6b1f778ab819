#include "inifile/LineScanner.h"

#include <cassert>
#include <cstring>

#include "base/File.h"

namespace qx::inifile {

namespace {

std::string_view AsCString(std::string_view bytes) { return bytes.substr(0, bytes.find('\0')); }

}  // namespace

LineScanner::LineScanner(int descriptor, std::span<char> window) noexcept : descriptor_(descriptor), window_(window) {
  assert(window.size() >= kLineBytesMax);
}

bool LineScanner::Next(std::string_view& line) {
  std::size_t length = LengthOfLineAtFront();
  while (length == 0 && !is_read_to_the_end_) {
    ReadMore();
    length = LengthOfLineAtFront();
  }
  if (length == 0) return false;

  line = AsCString(unread_.substr(0, length));
  unread_.remove_prefix(length);
  position_ += length;
  return true;
}

// The length of the line at the front; 0 if more bytes are needed, and at the end of the file.
std::size_t LineScanner::LengthOfLineAtFront() const noexcept {
  const std::string_view longest = unread_.substr(0, kLineBytesMax);
  const std::size_t line_feed = longest.find('\n');
  if (line_feed != std::string_view::npos) return line_feed + 1;
  const bool is_whole = longest.size() == kLineBytesMax || is_read_to_the_end_;
  return is_whole ? longest.size() : 0;
}

// Moves the unread bytes, which are fewer than a line, to the front of the window, and reads more after them.
void LineScanner::ReadMore() {
  const std::size_t kept = unread_.size();
  if (kept > 0) std::memmove(window_.data(), unread_.data(), kept);

  const auto offset = static_cast<std::int64_t>(position_ + kept);
  const file::Progress got = file::ReadSomeAt(descriptor_, offset, window_.data() + kept, window_.size() - kept);
  has_failed_ = got.Failed();
  if (got.bytes == 0) is_read_to_the_end_ = true;
  unread_ = {window_.data(), kept + got.bytes};
}

}  // namespace qx::inifile
