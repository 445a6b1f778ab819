// Shows a profile file as its readers see it, for tools that edit such files: the place of each entry, and the result
// of every read. The module does not link this.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qx::inifile {

// The largest number of characters in a line, without its line feed: readers read a longer line in pieces.
inline constexpr std::size_t kLineCharsMax = 1023;

enum class LineKind {
  kEmpty,    // nothing, or blanks
  kComment,  // begins with ";"
  kHeader,   // begins with "[": ends the previous section, and opens a section if there is a "]"
  kEntry,
  kOther,  // text that is not read
};

// One line of a text. The views point into the text; offsets count from its beginning.
struct ProfileLine {
  LineKind kind = LineKind::kOther;
  std::size_t begin = 0;
  std::size_t end = 0;  // after its line feed
  bool has_name = false;
  std::string_view name;        // kHeader with has_name: the section
  std::string_view key;         // kEntry
  std::string_view value;       // kEntry, without blanks and comment
  std::size_t equals = 0;       // kEntry: offset of the "="
  std::size_t value_begin = 0;  // kEntry

  [[nodiscard]] bool HasContent() const { return kind != LineKind::kEmpty && kind != LineKind::kComment; }
};

// Calls CIniFile::GetPrivateProfileString with a buffer that grows until nothing is cut. With a null `key` the result
// is the list of keys, with a null `section` the list of sections. [any thread]
[[nodiscard]] std::string ReadWhole(const std::string& path, const char* section, const char* key);
// The names in such a list. A NUL follows each name, also an empty one.
[[nodiscard]] std::vector<std::string> NamesIn(const std::string& list);

// The lines of a text without NUL bytes and without lines that are too long. [any thread]
[[nodiscard]] std::vector<ProfileLine> LinesOf(std::string_view text);

struct ProfileEntry {
  std::string key;
  std::string value;  // the value of the first entry of that key, which readers use

  bool operator==(const ProfileEntry&) const = default;
};

// Everything that programs can read from a profile file.
struct ProfileContent {
  std::vector<std::string> sections;                         // in file order, repetitions included
  std::map<std::string, std::vector<ProfileEntry>> entries;  // of the first section of each name

  bool operator==(const ProfileContent&) const = default;
};

// The content of a profile file with this text. [any thread]
[[nodiscard]] ProfileContent ContentOf(std::string_view text);
// Reads every entry with CIniFile. A file that cannot be read counts as empty. [any thread]
[[nodiscard]] ProfileContent ReadThroughClass(const std::string& path);

}  // namespace qx::inifile
