// Compresses files of a backup with Zstandard, and expands them.
//
// A compressed file has the name of the original file and the ending ".zst". It is one Zstandard frame with the size of
// the content and a checksum, so zstd(1) can expand it as well. A frame is not trusted. It must state a size of at most
// kExpandedBytesMax, its content must have exactly that size, and nothing may follow it.
#pragma once

#include <cstdint>
#include <string>

namespace qx::report {

inline constexpr const char* kCompressedEnding = ".zst";

// The index file of the largest ring has 4 GiB, and the 32-bit offsets of a data file reach 4 GiB.
inline constexpr std::int64_t kExpandedBytesMax = std::int64_t{8} << 30;

// Replaces the file `name` of the open directory by its compressed form, which has its permissions, owner and times,
// and is synced. 0 or the error number; EFBIG over kExpandedBytesMax. [any thread]
[[nodiscard]] int CompressFile(const std::string& name, int directory);

// Expands `name`.zst of one open directory to the new file `name` in another. Runs of zeros become holes. Nothing is
// read through a link. 0 or the error number; EBADMSG if the frame is damaged, cut, or not of the form that
// CompressFile writes. [any thread]
[[nodiscard]] int ExpandFile(const std::string& name, int from_directory, int to_directory);

}  // namespace qx::report
