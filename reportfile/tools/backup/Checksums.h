// SHA-256 checksums of files, in the format of sha256sum(1): "sha256sum --check" reads what is written here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx::report {

struct Checksum {
  std::string path;
  std::string hex;  // 64 characters, lower case
};

// Sets `hex` to the checksum of the file. `name` begins at the open directory, and is not read through a link. 0 or the
// error number. [any thread]
[[nodiscard]] int ChecksumOf(const std::string& name, int directory, std::string* hex);

// One line for each file. A name with a line feed, a carriage return or a backslash is escaped, and its line begins
// with a backslash.
//   {"reports/load.ind", "9f86..."} => "9f86...  reports/load.ind\n"
[[nodiscard]] std::string ChecksumLines(const std::vector<Checksum>& checksums);

// Reads such lines. False if one of them is not such a line; `checksums` is then unchanged.
[[nodiscard]] bool ParseChecksumLines(std::string_view text, std::vector<Checksum>* checksums);

}  // namespace qx::report
