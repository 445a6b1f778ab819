// The oracle of the registry: a tree and a reader in a plain form, with maps, recursion and fgets.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace qx::test {

// A key. Values are stored as in the file: marker and data.
struct PlainKey {
  std::map<std::string, std::string> values;
  std::map<std::string, PlainKey> keys;

  [[nodiscard]] std::string Text() const {
    std::string text;
    for (const auto& [name, value] : values) text += name + value + "\n";
    for (const auto& [name, key] : keys) text += "[" + name + "]\n" + key.Text();
    return text + "\n";
  }

  [[nodiscard]] bool HasValues() const {
    if (!values.empty()) return true;
    for (const auto& [name, key] : keys) {
      if (key.HasValues()) return true;
    }
    return false;
  }

  void Set(const std::string& name, const std::string& value) {
    keys.erase(name);
    values[name] = value;
  }

  // Reads the content of one key. True if a line was a valid value.
  bool Read(FILE* stream) {
    bool has_values = false;
    char line[1024];
    while (fgets(line, sizeof line, stream) != nullptr && line[0] != '\n' && line[0] != '\0') {
      if (char* feed = std::strrchr(line, '\n')) *feed = '\0';
      char* close = std::strchr(line, ']');
      if (line[0] == '[' && close != nullptr) {
        *close = '\0';
        PlainKey key;
        has_values = key.Read(stream) || has_values;
        values.erase(line + 1);
        keys[line + 1] = key;
      } else if (char* equals = std::strchr(line, '=')) {
        has_values = ReadValue(std::string(line, equals), equals) || has_values;
      }
    }
    return has_values;
  }

 private:
  bool ReadValue(const std::string& name, const char* marked) {
    if (std::strncmp(marked, "=s=", 3) == 0 || std::strncmp(marked, "=es=", 4) == 0) {
      Set(name, marked);
    } else if (std::strncmp(marked, "=d=", 3) == 0) {
      char* end = nullptr;
      const int number = static_cast<int>(std::strtol(marked + 3, &end, 10));
      if (end != marked + 3) Set(name, "=d=" + std::to_string(number));
    } else if (std::strncmp(marked, "=b=", 3) == 0) {
      Set(name, "=b=" + Bytes(marked + 3));
    } else {
      return false;
    }
    return true;
  }

  static std::string Bytes(const char* numbers) {
    std::string bytes;
    for (;;) {
      char* end = nullptr;
      const long number = std::strtol(numbers, &end, 16);
      if (end == numbers) return bytes;
      char triple[4];
      std::snprintf(triple, sizeof triple, "%02x ", static_cast<unsigned>(number) & 0xFFU);
      bytes += triple;
      numbers = end;
    }
  }
};

}  // namespace qx::test
