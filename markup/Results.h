// The notes a parse leaves behind: empty elements in one text, and the sentences made of them for readers.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qx::markup {

// No result is added to a text longer than this.
inline constexpr std::size_t kResultTextBytesMax = 999;
inline constexpr std::size_t kNoOffset = static_cast<std::size_t>(-1);

struct Result {
  std::string_view name;
  std::string_view value = {};              // left out when empty
  std::size_t offset = kNoOffset;           // left out at kNoOffset
  std::size_t offset2 = kNoOffset;          // left out at kNoOffset
  std::string_view value_name = "tagname";  // which attribute holds `value`
};

// Appends `<name tagname="value" offset="1" offset2="2"/>`; false when the text is full already.
bool AddResult(std::string& results, const Result& result);

// The phrase for a result's name, with its attributes' names in braces; empty for a name that is not known.
std::string_view ResultPhrase(std::string_view name);

}  // namespace qx::markup
