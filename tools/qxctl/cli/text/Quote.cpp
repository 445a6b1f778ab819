#include "tools/qxctl/cli/text/Quote.h"

#include <algorithm>
#include <cstdio>

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

bool IsPlain(char c) {
  const bool is_letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  const bool is_digit = c >= '0' && c <= '9';
  return is_letter || is_digit || std::string_view("/._-+:,@%=").find(c) != std::string_view::npos;
}

// A byte as it is written in the quotes $'...'.
std::string EscapedForBash(char c) {
  if (c == '\'' || c == '\\') return std::string("\\") + c;
  if (!IsControl(c)) return std::string(1, c);
  char escaped[5];
  std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
  return escaped;
}

}  // namespace

std::string Quoted(std::string_view text) { return "\"" + Visible(text) + "\""; }

std::string ShellWord(std::string_view text) {
  // A shell expands "~" and "=" only at the beginning of a word.
  const bool is_plain = !text.empty() && text.front() != '=' && std::all_of(text.begin(), text.end(), IsPlain);
  if (is_plain) return std::string(text);
  std::string word;
  if (std::any_of(text.begin(), text.end(), IsControl)) {
    for (const char c : text) word += EscapedForBash(c);
    return "$'" + word + "'";
  }
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return "'" + word + "'";
}

}  // namespace qx::ctl
