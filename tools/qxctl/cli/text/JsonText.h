// Writes JSON documents as text, and checks texts for UTF-8.
#pragma once

#include <string>

#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

// The document in one line, without a line end. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string JsonLine(const Json& document);

// JsonLine with a line end. Control characters that JSON allows, but a terminal acts on, are masked.
[[nodiscard]] std::string JsonLineOf(const Json& document);

// Indented by two spaces, without a line end. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string JsonText(const Json& document);

[[nodiscard]] bool IsUtf8(const std::string& text);

// `text` with U+FFFD for bytes that are not UTF-8.
[[nodiscard]] std::string ValidUtf8(const std::string& text);

}  // namespace qx::ctl
