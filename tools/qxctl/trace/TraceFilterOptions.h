// The options that choose entries of a trace, for the commands that print some.
#pragma once

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/trace/TraceText.h"

namespace qx::ctl {

inline constexpr std::string_view kFilterGroup = "Choice of entries";

inline constexpr Parameter kTraceFilterParameters[] = {
    {.name = "--module",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Only entries of this module column; may be repeated",
     .group = kFilterGroup,
     .is_repeatable = true},
    {.name = "--thread",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Only entries of this thread, as 0A1B2C3D; may be repeated",
     .group = kFilterGroup,
     .is_repeatable = true},
    {.name = "--since",
     .kind = ValueKind::kText,
     .value = "TIME",
     .help = "Only entries from this local time on, as \"2026-01-31 10:20\"",
     .group = kFilterGroup},
    {.name = "--until",
     .kind = ValueKind::kText,
     .value = "TIME",
     .help = "Only entries up to this local time",
     .group = kFilterGroup},
};

// From a command with kTraceFilterParameters.
inline TraceFilterOptions TraceFilterOptionsOf(const Values& values) {
  return {values.Texts("--module"), values.Texts("--thread"), values.Text("--since"), values.Text("--until")};
}

}  // namespace qx::ctl
