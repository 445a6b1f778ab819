// Writes registry values and changes in the notation of the registry file, or as JSON.
#pragma once

#include <string>

#include "registry/tools/TreeDiff.h"
#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

// The value alone: a string with its control bytes masked, a number in decimal, or a block such as "0a ff".
[[nodiscard]] std::string TextOf(const registry::TreeValue& value);

// The line of a value: "Name=s=text", "Count=d=-5", "Blob=b=0a ff"; of a subkey: "[Sub]".
[[nodiscard]] std::string LineOf(const std::string& name, const registry::TreeValue& value);

// Sets `type` and `value`; for a subkey only the type, which is "key".
void SetValueJson(Json& object, const registry::TreeValue& value);

// One group of lines for each key, as in `registry ls -r`.
[[nodiscard]] std::string ChangesToText(const Output& output, const registry::TreeDifference& difference);

// The array for the member "changes".
[[nodiscard]] Json ChangesToJson(const registry::TreeDifference& difference);

}  // namespace qx::ctl
