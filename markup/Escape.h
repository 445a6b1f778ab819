// Escapes and unescapes markup text ("<" to "&lt;" and back), and writes CDATA sections.
#pragma once

#include <string>
#include <string_view>

#include "markup/Pieces.h"

namespace qx::markup {

inline constexpr int kEscapeKeepReferences = 8;  // do not escape an "&" that begins a reference
inline constexpr int kEscapeQuoteMarks = 0x100;  // also escape both quote characters
inline constexpr int kUnescapeTrim = 0x100;      // remove white space at both ends
inline constexpr int kUnescapeCollapse = 0x200;  // trim, and replace each run of white space by one space

// Appends the text, escaped.
void AppendEscaped(std::string& out, std::string_view text, int flags);
void AppendEscapedPlain(std::string& out, std::string_view text, int flags);  // byte by byte; tests compare with it

// Adds the text, escaped, to the buffer of the pieces. Returns false and adds nothing if the text is longer than 1024
// bytes, or if its escaped form might not fit into the buffer.
bool AddEscaped(Pieces& pieces, std::string_view text, int flags);

// True if the text has a character that AppendEscaped may replace.
bool NeedsEscape(std::string_view text, int flags);

// Appends the text with every byte outside 0x20..0x7E as "&#xHH;".
void AppendBinary(std::string& out, std::string_view text);

// Appends the text with each known reference replaced by its character in UTF-8.
void AppendUnescaped(std::string& out, std::string_view text, int flags);
void AppendUnescapedPlain(std::string& out, std::string_view text);  // byte by byte; tests compare with it

inline constexpr std::string_view kCDataStart = "<![CDATA[";
inline constexpr std::string_view kCDataEnd = "]]>";

// Adds the text as CDATA: `a]]>b` => `<![CDATA[` `a]]` `]]><![CDATA[` `>b` `]]>`. The pieces may be views of `text`.
void AppendCDataPieces(Pieces& pieces, std::string_view text);

// Splits each "]]>" in the CDATA text that begins at offset `at` of `text` and ends with it. The text does not include
// the section's "<![CDATA[" and "]]>".
void SplitCDataEnds(std::string& text, std::size_t at);

}  // namespace qx::markup
