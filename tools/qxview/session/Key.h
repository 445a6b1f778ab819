// Loads the key that signs sessions: 32 random bytes in a file that only its owner may read. Sessions survive a restart
// if the file does; to remove it ends all sessions.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx::view {

using KeyBytes = std::array<unsigned char, 32>;

struct LoadedKey {
  KeyBytes bytes = {};
  std::string problem;  // why there is no key; empty if there is one
};

// Reads DIRECTORY/key. If it is missing, makes it and the directory. A symbolic link is refused, and so is a file of
// another user, one that others may read or write, or one of less than 32 bytes. [any thread]
[[nodiscard]] LoadedKey LoadKey(const std::string& directory);

// 64 hexadecimal digits: HMAC-SHA-256 of the text. Empty: the library failed. [any thread]
[[nodiscard]] std::string MacOf(const KeyBytes& key, std::string_view text);

// Random bytes of the library as hexadecimal digits. Empty: the library failed. [any thread]
[[nodiscard]] std::string RandomText(std::size_t bytes);

// Compares two texts in a time that does not depend on the place of their first difference. [any thread]
[[nodiscard]] bool IsEqualSecret(std::string_view left, std::string_view right);

}  // namespace qx::view
