// Finds the character of a named reference, in a hash table that is built at compile time.
#pragma once

#include <array>
#include <string_view>

inline constexpr int kPredefEntityBuckets = 130;

// Bucket x_Hash(name, 130) contains the entries of the names with this hash, one after another: one digit for the
// name's length, four for the code point, the name in lower case. "50916delta" is "Delta" (916); "50948delta" ("delta")
// comes after it.
extern const std::array<const char*, kPredefEntityBuckets> PredefEntityTable;

namespace qx::markup {

// The code point of a lower-case name; 0 for an unknown name. Quirk: for names that differ only in case the first entry
// is found, so "&Oslash;" and "&oslash;" give the same character.
int FindPredefEntity(std::string_view name);

}  // namespace qx::markup
