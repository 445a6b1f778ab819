// UTF-8 and UTF-16, one character or a whole text at a time.
//
// Only whole, shortest-form sequences of characters up to U+10FFFF count as valid, surrogates in UTF-8 and lone ones in
// UTF-16 do not. What is invalid is reported (-1) by the single-character forms and becomes U+FFFD in the others.
#pragma once

#include <string>
#include <string_view>

namespace qx::markup {

inline constexpr int kCodePointMax = 0x10FFFF;
inline constexpr int kReplacementCharacter = 0xFFFD;

constexpr bool IsSurrogate(int code) { return code >= 0xD800 && code <= 0xDFFF; }
constexpr bool IsCharacter(int code) { return code >= 0 && code <= kCodePointMax && !IsSurrogate(code); }

// Appends the character; U+FFFD for what is none.
void AppendUtf8(std::string& out, int code);
void AppendUtf16(std::u16string& out, int code);

// Takes one character from the front of the text: its code, or -1 for an invalid byte or unit, which alone is taken.
// -1 and no change on an empty text.
int TakeUtf8(std::string_view& text);
int TakeUtf16(std::u16string_view& text);

std::string Utf16To8(std::u16string_view text);
std::u16string Utf8To16(std::string_view text);

struct Utf8Check {
  bool valid = true;     // all sequences, the cut-off one aside
  bool cut_off = false;  // the text ends inside a sequence that is right so far
  int non_ascii = 0;     // whole characters above 127
};
Utf8Check CheckUtf8(std::string_view text);

}  // namespace qx::markup
