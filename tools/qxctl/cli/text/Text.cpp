#include "tools/qxctl/cli/text/Text.h"

#include <cstdio>

#include "markup/Markup.h"
#include "tools/qxctl/cli/text/JsonText.h"

namespace qx::ctl {

namespace {

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

}  // namespace

std::string Visible(std::string_view text) {
  std::string visible;
  for (const char c : text) {
    if (c == '\\') visible += '\\';
    if (!IsControl(c)) {
      visible += c;
      continue;
    }
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
    visible += escaped;
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
