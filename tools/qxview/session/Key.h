// The key that signs sessions: 32 random bytes in a file that only its owner may read. Sessions survive a restart as
// long as the file does; whoever removes it ends all of them.
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

// Reads DIRECTORY/key; makes it, and the directory, if it is missing. A file of another user, one that others may read
// or write, a link, and a file of less than 32 bytes are refused. [any thread]
[[nodiscard]] LoadedKey LoadKey(const std::string& directory);

// 64 hexadecimal digits: HMAC-SHA-256 of the text. Empty: the library failed. [any thread]
[[nodiscard]] std::string MacOf(const KeyBytes& key, std::string_view text);

// Random bytes of the library as hexadecimal digits. Empty: the library failed. [any thread]
[[nodiscard]] std::string RandomText(std::size_t bytes);

// Compares in a time that does not depend on where the texts differ. [any thread]
[[nodiscard]] bool IsEqualSecret(std::string_view left, std::string_view right);

}  // namespace qx::view
