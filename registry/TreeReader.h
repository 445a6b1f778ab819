// Internal: reads the format of the registry file (docs/registry-file.md).
//
// The input is read in windows. A line has at most 1023 characters, and the rest of a longer line is the next line. The
// part of a line after a NUL is ignored. Existing files depend on these rules, so the result must not depend on where a
// window ends.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

class CRegistryNode;

namespace qx::registry {

inline constexpr std::size_t kLineCharsMax = 1023;
inline constexpr std::size_t kWindowBytes = 64UL * 1024;

// Reads up to `size` bytes like read(2): the number of bytes, 0 at the end, -1 on an error.
using ByteSource = std::function<ssize_t(char* to, std::size_t size)>;

// Reads the lines of an input, one after another.
class LineReader {
 public:
  // A window has at least the size of the longest line, even if `window_bytes` is smaller.
  explicit LineReader(ByteSource source, std::size_t window_bytes = kWindowBytes);

  // The next line without its line feed, valid until the next call; nothing at the end or after an error. It is empty
  // exactly when its first character is a line feed or NUL.
  //   "abc\n"           => "abc"
  //   "ab\0c\n"         => "ab"
  //   1023 x and "\n"   => the 1023 x, then an empty line
  [[nodiscard]] std::optional<std::string_view> Next();

  [[nodiscard]] bool HasFailed() const { return failed_; }
  // The number of bytes that were read from the source and are not part of a returned line.
  [[nodiscard]] std::size_t UnreadBytes() const { return end_ - begin_; }

 private:
  void Refill();

  ByteSource source_;
  std::size_t window_bytes_;
  std::unique_ptr<char[]> window_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool may_have_nul_ = false;  // a NUL was read: only then the lines are searched for it
  bool at_end_ = false;
  bool failed_ = false;
};

enum class Reading {
  kFailed,  // no value line was recognised, or the input could not be read to its end
  kPart,    // lines were skipped for lack of memory
  kWhole,
};

// Reads a key's content up to the line that closes it and merges it into `node`.
[[nodiscard]] Reading RestoreFrom(LineReader& lines, CRegistryNode& node);

}  // namespace qx::registry
