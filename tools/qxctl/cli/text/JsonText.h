// JSON documents and texts in UTF-8.
#pragma once

#include <string>

#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

// The document in one line, without a line end. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string JsonLine(const Json& document);

// The same with a line end, and with the control characters masked that JSON allows and a terminal acts on.
[[nodiscard]] std::string JsonLineOf(const Json& document);

// Indented by two spaces, without a line end. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string JsonText(const Json& document);

[[nodiscard]] bool IsUtf8(const std::string& text);

// `text` with U+FFFD for bytes that are not UTF-8.
[[nodiscard]] std::string ValidUtf8(const std::string& text);

}  // namespace qx::ctl
