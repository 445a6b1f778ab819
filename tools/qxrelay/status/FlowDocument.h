// The figures of a service (`ServiceFlow`) as a JSON object, in a file and in the document of "qxrelay status --json".
//
// A text that is not UTF-8 is null, and its key with "Base64" appended has its bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxrelay/status/Flow.h"

namespace qx::relay {

// [any thread] Throws std::bad_alloc.
[[nodiscard]] ctl::Json DocumentOf(const ServiceFlow& flow);
// In one line, with a line end.
[[nodiscard]] std::string TextOfFlow(const ServiceFlow& flow);
// Unset for what TextOfFlow does not return.
[[nodiscard]] std::optional<ServiceFlow> FlowOfText(std::string_view text);

// Writes the status file of a service. A rename replaces the file. It is not synced, and only its user can read it.
//
// Unset: written. Otherwise what failed, for the operator. [any thread]
[[nodiscard]] std::optional<std::string> WriteFlowFile(const std::string& path, const ServiceFlow& flow);
[[nodiscard]] std::optional<ServiceFlow> ReadFlowFile(const std::string& path);

}  // namespace qx::relay
