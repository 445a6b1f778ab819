// A profile file as its readers see it, for tools that edit one: where each entry is, and what every read
// returns. The module does not link it.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qx::inifile {

// Characters of a line without its line feed: readers take longer lines in pieces.
inline constexpr std::size_t kLineCharsMax = 1023;

enum class LineKind {
  kEmpty,    // nothing, or blanks
  kComment,  // begins with ";"
  kHeader,   // begins with "[": ends the section before, and opens one if there is a "]"
  kEntry,
  kOther,  // text that is not read
};

// One line of a text. The views are into the text; offsets are from its beginning.
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

// The reading primitive of CIniFile with a buffer that grows until nothing is cut. With a null `key` the result is the
// list of keys, with a null `section` that of the sections. [any thread]
[[nodiscard]] std::string ReadWhole(const std::string& path, const char* section, const char* key);
// The names of such a list. Each name has its NUL, an empty one too.
[[nodiscard]] std::vector<std::string> NamesIn(const std::string& list);

// The lines of a text without NUL bytes and without lines that are too long. [any thread]
[[nodiscard]] std::vector<ProfileLine> LinesOf(std::string_view text);

struct ProfileEntry {
  std::string key;
  std::string value;  // the value of the first entry of that key, which readers use

  bool operator==(const ProfileEntry&) const = default;
};

// Everything that reads of a profile file can return.
struct ProfileContent {
  std::vector<std::string> sections;                         // in file order, repetitions included
  std::map<std::string, std::vector<ProfileEntry>> entries;  // of the first section of each name; keys likewise

  bool operator==(const ProfileContent&) const = default;
};

// The content of a profile file with these lines. [any thread]
[[nodiscard]] ProfileContent ContentOf(std::string_view text);
// Reads every entry with CIniFile. A file that cannot be read counts as empty. [any thread]
[[nodiscard]] ProfileContent ReadThroughClass(const std::string& path);

}  // namespace qx::inifile
