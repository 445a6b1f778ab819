// The oracle of the reading primitive: a plain form of it with fgets and C strings.
#pragma once

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

using PlainFile = std::unique_ptr<FILE, int (*)(FILE*)>;

inline PlainFile OpenPlain(const std::string& path) { return {std::fopen(path.c_str(), "r"), &std::fclose}; }

// The lines as fgets returns them, and the position of the stream after each.
struct PlainLine {
  std::string text;
  long end;
};

inline std::vector<PlainLine> FgetsLines(const std::string& path) {
  std::vector<PlainLine> lines;
  const PlainFile file = OpenPlain(path);
  char line[1024];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) lines.push_back({line, std::ftell(file.get())});
  return lines;
}

inline bool IsSpaceByte(char c) { return std::strchr(" \t\n\v\f\r", c) != nullptr && c != '\0'; }

// Removes in place the blanks at the beginning, the comment, and the blanks at the end.
inline char* TrimInPlace(char* line) {
  while (IsSpaceByte(*line)) ++line;
  if (char* comment = std::strchr(line, ';')) *comment = '\0';
  for (std::size_t end = std::strlen(line); end > 0 && IsSpaceByte(line[end - 1]); --end) line[end - 1] = '\0';
  return line;
}

struct FgetsRead {
  const char* section;
  const char* key;
  char* buf;
  unsigned size;
  unsigned count = 0;

  void Place(const char* text, unsigned limit, unsigned extra) {
    for (unsigned i = 0; i < limit; ++i) {
      buf[count + i] = text[i];
      if (text[i] == '\0') break;
    }
    buf[size - 1] = '\0';
    count += static_cast<unsigned>(std::strlen(text)) + extra;
  }

  // False at the end of the search.
  bool TakeHeader(char* line, bool& inside) {
    if (section == nullptr) {
      char* end = std::strchr(line, ']');
      if (end == nullptr) return true;
      *end = '\0';
      Place(line + 1, size - 1 - count, 1);
      return true;
    }
    if (inside) return false;
    const std::size_t length = std::strlen(section);
    inside = std::strncmp(line + 1, section, length) == 0 && line[1 + length] == ']';
    return true;
  }

  bool TakeEntry(char* line) {
    char* equals = std::strchr(line, '=');
    if (equals == nullptr) return true;
    char* value = equals + 1;
    while (IsSpaceByte(*value)) ++value;
    while (equals > line && IsSpaceByte(equals[-1])) --equals;
    *equals = '\0';
    if (key == nullptr) {
      Place(line, size - 1 - count, 1);
      return true;
    }
    if (std::strcmp(line, key) != 0) return true;
    Place(value, size - count, 0);
    return false;
  }

  void Scan(FILE* file) {
    bool inside = false;
    char line[1024];
    while (count < size - 2 && std::fgets(line, sizeof line, file) != nullptr) {
      char* text = TrimInPlace(line);
      if (*text == '[' ? !TakeHeader(text, inside) : inside && !TakeEntry(text)) return;
    }
  }
};

// Does the same as CIniFile::GetPrivateProfileString, for sizes from 2.
inline unsigned FgetsGetString(const char* section, const char* key, const char* def, char* buf, unsigned size,
                               const std::string& path) {
  buf[0] = '\0';
  const bool is_list = section == nullptr || key == nullptr;
  FgetsRead read{section, key, buf, size};
  if (const PlainFile file = OpenPlain(path)) read.Scan(file.get());
  unsigned count = read.count;
  if (count == 0) {
    if (is_list || def == nullptr) return 0;
    std::snprintf(buf, size, "%s", def);
    return static_cast<unsigned>(std::strlen(buf));
  }
  if (count >= size) {
    count = size - 1;
    if (is_list) {
      buf[count] = '\0';
      count = size - 2;
    }
  }
  buf[count] = '\0';
  return count;
}

}  // namespace qx::test
