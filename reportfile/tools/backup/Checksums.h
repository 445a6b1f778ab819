// Computes SHA-256 checksums of files, and reads and writes them in the format of sha256sum(1), so that "sha256sum
// --check" can check them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx::report {

struct Checksum {
  std::string path;
  std::string hex;  // 64 characters, lower case
};

// Sets `hex` to the checksum of the file. `name` is relative to the open directory; a symbolic link is not followed. 0
// or the error number. [any thread]
[[nodiscard]] int ChecksumOf(const std::string& name, int directory, std::string* hex);

// One line for each file. A name with a line feed, a carriage return or a backslash is escaped, and its line begins
// with a backslash.
//   {"reports/load.ind", "9f86..."} => "9f86...  reports/load.ind\n"
[[nodiscard]] std::string ChecksumLines(const std::vector<Checksum>& checksums);

// Reads the lines of ChecksumLines. False if a line has another form; `checksums` is then unchanged.
[[nodiscard]] bool ParseChecksumLines(std::string_view text, std::vector<Checksum>* checksums);

}  // namespace qx::report
