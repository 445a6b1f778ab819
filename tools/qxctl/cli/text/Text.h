// Prepares texts that others have written for a terminal or for JSON. Such a text may contain any byte.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

// `text` with control bytes as \xHH, so that no text moves the cursor or looks like another line; "\" is doubled.
//   "a\tb" => a\x09b    "C:\x" => C:\\x
[[nodiscard]] std::string Visible(std::string_view text);

// Masks the bytes that control a terminal as \xHH: control bytes, DEL, and the control characters U+0080 to U+009F,
// encoded or as single bytes. Line feeds, tabs, the CR of a CR LF and all other UTF-8 stay. kJson masks DEL and U+0080
// to U+009F as \u00HH instead, so a JSON text stays valid.
//   "a\033[2Jb\r\n" => a\x1B[2Jb, and the line end
enum class Masking { kText, kJson };
[[nodiscard]] std::string ForTerminal(std::string_view text, Masking masking = Masking::kText);

// JSON texts are UTF-8. Sets `key` to `bytes`, or, if they are not UTF-8, `key` to null and `key`Base64 to their
// base64.
void SetText(Json& object, const std::string& key, const std::string& bytes);

}  // namespace qx::ctl
