// Builds the results of a parse: one text with an empty element for each fault. Also has the phrases that describe the
// faults to readers.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qx::markup {

// If the text is longer than this, no further result is added.
inline constexpr std::size_t kResultTextBytesMax = 999;
inline constexpr std::size_t kNoOffset = static_cast<std::size_t>(-1);

struct Result {
  std::string_view name;
  std::string_view value = {};              // not written if empty
  std::size_t offset = kNoOffset;           // not written if kNoOffset
  std::size_t offset2 = kNoOffset;          // not written if kNoOffset
  std::string_view value_name = "tagname";  // the attribute that contains `value`
};

// Appends `<name tagname="value" offset="1" offset2="2"/>`; false, and nothing is appended, if the text is full.
bool AddResult(std::string& results, const Result& result);

// The phrase for a result's name, with the names of its attributes in braces; empty for an unknown name.
std::string_view ResultPhrase(std::string_view name);

}  // namespace qx::markup
