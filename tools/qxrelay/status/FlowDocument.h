// Writes the figures of a service (`ServiceFlow`) as a JSON object: in a file, and in the document of "qxrelay status
// --json".
//
// If a text is not UTF-8, its value is null, and the key with "Base64" appended has its bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxrelay/status/Flow.h"

namespace qx::relay {

// [any thread] Throws std::bad_alloc.
[[nodiscard]] ctl::Json DocumentOf(const ServiceFlow& flow);
// The object in one line, with a line end.
[[nodiscard]] std::string TextOfFlow(const ServiceFlow& flow);
// The figures of such a line; unset for a text that TextOfFlow does not return.
[[nodiscard]] std::optional<ServiceFlow> FlowOfText(std::string_view text);

// Writes the status file of a service. A rename replaces the file. It is not synced, and only its user can read it.
// Returns why it failed, for the operator; unset after a success. [any thread]
[[nodiscard]] std::optional<std::string> WriteFlowFile(const std::string& path, const ServiceFlow& flow);
[[nodiscard]] std::optional<ServiceFlow> ReadFlowFile(const std::string& path);

}  // namespace qx::relay
