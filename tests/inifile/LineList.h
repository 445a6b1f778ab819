// The oracle of random files and operations: a profile file as a plain list of lines.
//
// Everything works on whole vectors of strings, with indices instead of file positions; after each edit the list is
// joined and split again, because an edit can join the pieces of a long line.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

class LineList {
 public:
  explicit LineList(std::string bytes) : bytes_(std::move(bytes)) {}

  const std::string& Bytes() const { return bytes_; }

  std::vector<std::string> SectionNames() const {
    std::vector<std::string> names;
    for (const std::string& line : LinesAsRead()) {
      const std::size_t end = line.find(']');
      if (line.starts_with("[") && end != std::string::npos) names.push_back(line.substr(1, end - 1));
    }
    return names;
  }

  struct Entry {
    std::string key;
    std::string value;
  };

  std::vector<Entry> Entries(const std::string& section) const {
    const std::vector<std::string> lines = LinesAsRead();
    auto begin = std::find_if(lines.begin(), lines.end(), [&](auto& line) { return Names(line, section); });
    if (begin == lines.end()) return {};
    const auto end = std::find_if(++begin, lines.end(), [](auto& line) { return line.starts_with("["); });
    std::vector<Entry> entries;
    for (; begin != end; ++begin) {
      const std::size_t equals = begin->find('=');
      if (equals == std::string::npos) continue;
      entries.push_back({Trimmed(begin->substr(0, equals), kBlanks), Trimmed(begin->substr(equals + 1), kBlanks)});
    }
    return entries;
  }

  std::vector<std::string> Keys(const std::string& section) const {
    std::vector<std::string> keys;
    for (const Entry& entry : Entries(section)) keys.push_back(entry.key);
    return keys;
  }

  // The value of the first entry with this key; `def` if this value is empty, or without such an entry.
  std::string Value(const std::string& section, const std::string& key, const std::string& def) const {
    for (const Entry& entry : Entries(section)) {
      if (entry.key == key) return entry.value.empty() ? def : entry.value;
    }
    return def;
  }

  using Name = std::optional<std::string>;

  bool Write(const std::string& section, const Name& key, const Name& value) {
    const std::vector<Region> regions = Regions();
    const std::size_t count = regions.size();
    std::size_t header = 0;
    while (header < count && !Names(regions[header].said, section)) ++header;
    std::size_t next = header + 1;
    while (next < count && !regions[next].said.starts_with("[")) ++next;

    if (header == count) return WriteWithoutSection(section, key, value);
    if (!key) return Replace(regions, header, std::min(next, count), next >= count, "");
    for (std::size_t i = header + 1; i < std::min(next, count); ++i) {
      if (!Says(regions[i].said, *key)) continue;
      const std::string feed = i == header + 1 ? "\n" : "";
      return Replace(regions, i, i + 1, false, feed + (value ? *key + "=" + *value + "\n" : ""));
    }
    if (!value) return false;
    if (next < count) return Replace(regions, next, next, false, *key + "=" + *value + "\n");
    bytes_ += *key + "=" + *value + "\n";
    return true;
  }

 private:
  static constexpr const char* kBlanks = " \t\n\v\f\r";

  // A line with meaning, and the lines before it back to the previous such line.
  struct Region {
    std::string bytes;
    std::string said;
  };

  static std::string Trimmed(const std::string& text, const char* characters) {
    const std::size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(characters) - first + 1);
  }

  static bool Names(const std::string& line, const std::string& section) {
    return line.starts_with("[" + section + "]");
  }

  static bool Says(const std::string& line, const std::string& key) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return false;
    return line.substr(0, line.substr(0, equals).find_last_not_of(" \t") + 1) == key;
  }

  std::vector<std::string> Pieces() const {
    std::vector<std::string> pieces(1);
    for (const char c : bytes_) {
      pieces.back() += c;
      if (c == '\n' || pieces.back().size() == 1023) pieces.emplace_back();
    }
    if (pieces.back().empty()) pieces.pop_back();
    return pieces;
  }

  std::vector<std::string> LinesAsRead() const {
    std::vector<std::string> lines;
    for (const std::string& piece : Pieces()) {
      const std::string text = piece.c_str();
      lines.push_back(Trimmed(text.substr(0, text.find(';')), kBlanks));
    }
    return lines;
  }

  std::vector<Region> Regions() const {
    std::vector<Region> regions;
    std::string above;
    for (const std::string& piece : Pieces()) {
      std::string said = piece.c_str();
      if (!said.empty()) said.pop_back();
      above += piece;
      if (said.empty() || said.starts_with(";")) continue;
      regions.push_back({above, said});
      above.clear();
    }
    return regions;
  }

  // Replaces the regions from `first` up to, but not including `last`, by `text`. With `to_the_end`, the lines after
  // the last region are removed, too.
  bool Replace(const std::vector<Region>& regions, std::size_t first, std::size_t last, bool to_the_end,
               const std::string& text) {
    std::size_t begin = 0;
    for (std::size_t i = 0; i < first; ++i) begin += regions[i].bytes.size();
    std::size_t end = begin;
    for (std::size_t i = first; i < last; ++i) end += regions[i].bytes.size();
    bytes_ = bytes_.substr(0, begin) + text + (to_the_end ? "" : bytes_.substr(end));
    return true;
  }

  bool WriteWithoutSection(const std::string& section, const Name& key, const Name& value) {
    if (!key || !value) return false;
    bytes_ += "\n[" + section + "]\n\n" + *key + "=" + *value + "\n";
    return true;
  }

  std::string bytes_;
};

// The names that the class returns of a list: those before the first empty one.
inline std::vector<std::string> UpToAnEmptyName(std::vector<std::string> names) {
  names.erase(std::find(names.begin(), names.end(), ""), names.end());
  return names;
}

}  // namespace qx::test
