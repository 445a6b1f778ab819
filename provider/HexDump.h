// Formats a name as a hex dump for the trace: a name may have any byte, and a text does not show every byte.
#pragma once

#include <string>

namespace qx::provider {

// The bytes of `text` in rows of 16, as numbers and as characters, rows separated by a line feed. A byte that is not
// printable ASCII shows as "." in the character column. A text of more than one row shows each row's offset, and its
// last row is padded with blanks to the width of the others. A null pointer reads "(null)", an empty text "".
//   "ab"             => |61 62   ab|
//   16 times "a", b  => |0000: 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61   aaaaaaaaaaaaaaaa|
//                       |0010: 62                                                b               |
// [any thread]
[[nodiscard]] std::string NameHexDump(const char* text);

}  // namespace qx::provider
