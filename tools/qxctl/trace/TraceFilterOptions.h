// The options with which a command chooses trace entries by their content.
#pragma once

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/slice/SliceOptions.h"
#include "tools/qxctl/trace/TraceText.h"

namespace qx::ctl {

inline constexpr std::string_view kFilterGroup = "Selection by header";

inline constexpr std::string_view kTraceLevels[] = {"error", "warning"};

inline constexpr Parameter kTraceFilterParameters[] = {
    {.name = "--module",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Only entries with this text in the module column; may be repeated",
     .group = kFilterGroup,
     .is_repeatable = true},
    {.name = "--thread",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Only entries of this thread, such as 0A1B2C3D; may be repeated",
     .group = kFilterGroup,
     .is_repeatable = true},
    {.name = "--level",
     .kind = ValueKind::kText,
     .help = "error: only entries with the word ERROR; warning: only those with ERROR or WARNING",
     .group = kFilterGroup,
     .choices = kTraceLevels},
};

// For a command with kTraceFilterParameters and options of a slice.
inline Status TraceFilterOf(const Values& values, TraceFilter& filter) {
  if (Status status = SliceOf(values, filter.slice); !status.IsOk()) return status;
  return MakeFilter({values.Texts("--module"), values.Texts("--thread"), values.Text("--level")}, filter);
}

}  // namespace qx::ctl
