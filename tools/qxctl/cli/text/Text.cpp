#include "tools/qxctl/cli/text/Text.h"

#include <algorithm>
#include <cstdio>

#include "markup/Markup.h"
#include "tools/qxctl/cli/text/JsonText.h"

namespace qx::ctl {

namespace {

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// The length of the UTF-8 character that `text` begins with; 0 if it does not begin with one.
std::size_t CharacterBytes(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  const std::size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (text.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
  }
  return size;
}

std::string Escape(const char* prefix, char c) {
  char escaped[8];
  std::snprintf(escaped, sizeof escaped, "%s%02X", prefix, static_cast<unsigned>(static_cast<unsigned char>(c)));
  return escaped;
}

bool IsC1(char c) { return static_cast<unsigned char>(c) >= 0x80 && static_cast<unsigned char>(c) < 0xA0; }

// The number of bytes at the beginning of `text` that control a terminal.
std::size_t ActiveBytes(std::string_view text) {
  const char first = text[0];
  if (first == '\n' || first == '\t' || text.starts_with("\r\n")) return 0;
  if (IsControl(first)) return 1;
  const std::size_t size = CharacterBytes(text);
  if (size == 0) return IsC1(first) ? 1 : 0;
  return size == 2 && first == '\xC2' && IsC1(text[1]) ? 2 : 0;
}

}  // namespace

std::string ForTerminal(std::string_view text, Masking masking) {
  const bool is_json = masking == Masking::kJson;
  if (is_json && text.find_first_of("\x7F\xC2") == std::string_view::npos) return std::string(text);
  std::string shown;
  while (!text.empty()) {
    const std::size_t active = ActiveBytes(text);
    const std::size_t size = active > 0 ? active : std::max<std::size_t>(CharacterBytes(text), 1);
    if (active == 0) {
      shown += text.substr(0, size);
    } else if (is_json) {
      shown += Escape("\\u00", text[size - 1]);  // the number of U+0080 to U+009F is its second byte
    } else {
      for (const char c : text.substr(0, size)) shown += Escape("\\x", c);
    }
    text.remove_prefix(size);
  }
  return shown;
}

std::string Visible(std::string_view text) {
  std::string visible;
  for (const char c : text) {
    if (c == '\\') visible += '\\';
    if (!IsControl(c)) {
      visible += c;
      continue;
    }
    visible += Escape("\\x", c);
  }
  return visible;
}

void SetText(Json& object, const std::string& key, const std::string& bytes) {
  object[key] = nullptr;
  if (IsUtf8(bytes)) {
    object[key] = bytes;
  } else {
    object[key + "Base64"] = CMarkup::EncodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  }
}

}  // namespace qx::ctl
