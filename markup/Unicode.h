// Encodes, decodes and checks UTF-8 and UTF-16, one character or a whole text at a time.
//
// A sequence is valid if it is complete, in its shortest form, and a character up to U+10FFFF. Surrogates in UTF-8 and
// lone surrogates in UTF-16 are invalid. For invalid input, functions for one character return -1, and functions for
// whole texts write U+FFFD.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qx::markup {

inline constexpr int kCodePointMax = 0x10FFFF;
inline constexpr int kReplacementCharacter = 0xFFFD;

constexpr bool IsSurrogate(int code) { return code >= 0xD800 && code <= 0xDFFF; }
constexpr bool IsCharacter(int code) { return code >= 0 && code <= kCodePointMax && !IsSurrogate(code); }

// Writes the character to `to`, which must have space for kUtf8BytesMax bytes; returns the end of what was written.
// U+FFFD if `code` is not a character.
inline constexpr std::size_t kUtf8BytesMax = 4;
char* WriteUtf8(char* to, int code);

// Appends the character; U+FFFD if `code` is not a character.
void AppendUtf8(std::string& out, int code);
void AppendUtf16(std::u16string& out, int code);

// Removes one character from the front of the text and returns its code. For an invalid byte or unit, removes only this
// one and returns -1. Returns -1 for an empty text.
int TakeUtf8(std::string_view& text);
int TakeUtf16(std::u16string_view& text);

std::string Utf16To8(std::u16string_view text);
std::u16string Utf8To16(std::string_view text);

struct Utf8Check {
  bool valid = true;     // all sequences are valid, not counting one that is cut off at the end
  bool cut_off = false;  // the text ends inside a sequence that is valid so far
  int non_ascii = 0;     // complete characters above 127, up to the first invalid byte
};
Utf8Check CheckUtf8(std::string_view text);

}  // namespace qx::markup
