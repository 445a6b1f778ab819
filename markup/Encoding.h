// Finds the code page number of an encoding by its name, in a hash table that is built at compile time.
#pragma once

#include <array>
#include <string_view>

inline constexpr int kEncodingNameBuckets = 155;

// Bucket x_Hash(name, 155) contains the entries of the names with this hash, one after another: two digits for the
// name's length, five for the code page, the name in lower case. "0800949ksc_5601" is "ksc_5601" (949).
extern const std::array<const char*, kEncodingNameBuckets> EncodingNameTable;

namespace qx::markup {

// The code page of a name; upper and lower case are equal. -1 for an unknown name.
int FindCodePage(std::string_view name);

}  // namespace qx::markup
