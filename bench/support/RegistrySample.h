// Makes the content of the registry files, and of the key files that are compared with them.
//
// Of ten values, six are strings of about 40 characters, two are numbers, one is a string to expand and one is a block
// of 16 bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qx::bench {

constexpr int kKeys = 1000;
constexpr int kValuesPerKey = 100;
constexpr int kValues = kKeys * kValuesPerKey;

constexpr std::string_view kBytes = "00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff ";

// Formats 42 as "0000042": all names have the same length, so they sort like their numbers.
inline std::string Digits(std::int64_t number) {
  const std::string digits = std::to_string(number);
  return std::string(7 - digits.size(), '0') + digits;
}

struct Value {
  const char* marker;
  std::string data;
};

inline Value MakeValue(std::int64_t number) {
  switch (number % 10) {
    case 6:
    case 7:
      return {"=d=", std::to_string(number * 1000)};
    case 8:
      return {"=es=", "%HOME%/quaxel/agents/" + Digits(number)};
    case 9:
      return {"=b=", std::string(kBytes)};
    default:
      return {"=s=", "/opt/quaxel/agents/thresholds/" + Digits(number) + ".conf"};
  }
}

// Makes the content that both formats have: keys with `per_key` values each; all values are numbered in sequence.
template <typename OpenKey, typename TakeValue>
void ForEachValue(std::int64_t values, std::int64_t per_key, OpenKey open_key, TakeValue take_value) {
  for (std::int64_t number = 0; number < values; ++number) {
    if (number % per_key == 0) open_key("Key" + Digits(number / per_key));
    take_value("Setting" + Digits(number), MakeValue(number));
  }
}

inline std::string RegistryText(std::int64_t values, std::int64_t per_key) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n";
  bool is_open = false;
  ForEachValue(
      values, per_key,
      [&](const std::string& key) {
        if (is_open) text += '\n';
        is_open = true;
        text += "[" + key + "]\n";
      },
      [&](const std::string& name, const Value& value) { text += name + value.marker + value.data + "\n"; });
  return text + "\n\n\n\n";
}

}  // namespace qx::bench
