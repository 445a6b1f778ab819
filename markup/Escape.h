// Markup text in both directions: "<" to "&lt;", references back to characters, CDATA sections.
#pragma once

#include <string>
#include <string_view>

#include "markup/Pieces.h"

namespace qx::markup {

inline constexpr int kEscapeKeepReferences = 8;  // an "&" that begins a reference stays
inline constexpr int kEscapeQuoteMarks = 0x100;  // both quote characters, too
inline constexpr int kUnescapeTrim = 0x100;      // drop white space at both ends
inline constexpr int kUnescapeCollapse = 0x200;  // and make one space of each run of it

// Appends the text, escaped. An unchanged stretch is copied whole.
void AppendEscaped(std::string& out, std::string_view text, int flags);
void AppendEscapedPlain(std::string& out, std::string_view text, int flags);  // byte by byte: the oracle in tests

// Adds the text, escaped, to what the pieces put together themselves; false, and nothing is added, when it might not
// fit there.
bool AddEscaped(Pieces& pieces, std::string_view text, int flags);

// True when AppendEscaped would change something.
bool NeedsEscape(std::string_view text, int flags);

// Appends the text with every byte outside 0x20..0x7E as "&#xHH;".
void AppendBinary(std::string& out, std::string_view text);

// Appends the text with its references replaced by UTF-8.
void AppendUnescaped(std::string& out, std::string_view text, int flags);

inline constexpr std::string_view kCDataStart = "<![CDATA[";
inline constexpr std::string_view kCDataEnd = "]]>";

// The pieces whose concatenation is the text as CDATA: `a]]>b` => `<![CDATA[` `a]]` `]]><![CDATA[` `>b` `]]>`.
// They view `text` and constants.
void AppendCDataPieces(Pieces& pieces, std::string_view text);

// The same for CDATA that stands at the end of `text` from `at` on, without its "<![CDATA[" and "]]>".
void SplitCDataEnds(std::string& text, std::size_t at);

}  // namespace qx::markup
