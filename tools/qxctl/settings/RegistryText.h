// Registry values and changes as qxctl shows them: the notation of the registry file, or JSON.
#pragma once

#include <string>

#include "registry/tools/TreeDiff.h"
#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

// A string with its control bytes masked, a number in decimal, "0a ff".
[[nodiscard]] std::string TextOf(const registry::TreeValue& value);

// "Name=s=text"   "Count=d=-5"   "Blob=b=0a ff"   of a subkey: "[Sub]"
[[nodiscard]] std::string LineOf(const std::string& name, const registry::TreeValue& value);

// Sets `type` and `value`; of a subkey the type "key" alone.
void SetValueJson(Json& object, const registry::TreeValue& value);

// One group of lines for each key, as in `registry ls -r`.
[[nodiscard]] std::string ChangesToText(const Output& output, const registry::TreeDifference& difference);

// A list for "changes".
[[nodiscard]] Json ChangesToJson(const registry::TreeDifference& difference);

}  // namespace qx::ctl
