// Texts of foreign origin on their way to a terminal or into JSON: they may hold any byte.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

// Control bytes as \xHH, so that no text moves the cursor or looks like a line of its own; "\" is doubled.
//   "a\tb" => a\x09b    "C:\x" => C:\\x
[[nodiscard]] std::string Visible(std::string_view text);

// JSON texts are UTF-8. Sets `key` to `bytes`, or, if they are none, `key` to null and `key`Base64 to their base64.
void SetText(Json& object, const std::string& key, const std::string& bytes);

}  // namespace qx::ctl
