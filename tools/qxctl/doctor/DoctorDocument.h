// Writes the findings of a check as a JSON document.
#pragma once

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxctl/doctor/Doctor.h"

namespace qx::ctl {

// "ok", "info", "warning", "error"
[[nodiscard]] const char* NameOf(Severity severity);

// kFinding if a finding needs attention.
Status StatusOf(const DoctorFindings& findings);

[[nodiscard]] Json ToJson(const DoctorFindings& findings, const Status& status);

}  // namespace qx::ctl
