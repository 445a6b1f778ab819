// Looks at everything that must be right for the module to serve, and changes nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "debug/tools/TraceSettingSources.h"
#include "registry/RegistryPaths.h"
#include "tools/qxctl/store/WritablePath.h"

namespace qx::ctl {

enum class Severity { kOk, kInfo, kWarning, kError };

struct DoctorFinding {
  std::string_view code;  // explained in the table of explanations, which also says what to do
  std::string fact;
};

// By its code. [any thread]
[[nodiscard]] Severity SeverityOf(std::string_view code);
// "module", "registry", "reports", "traces", "limits"
[[nodiscard]] const char* SectionOf(std::string_view code);

// Where it looks; all but the module's may be pointed elsewhere, for a copy of another machine's files and for tests.
struct DoctorPlaces {
  std::string module;
  std::string registry_directory = registry::kSystemDirectory;
  std::string report_directory;  // empty: the one that the registry gives
  std::string trace_settings_directory = debug::kTraceConfigDirectory;
  std::string process_directory = "/proc";
  std::string application = "QXRemConXfer";
};

using DoctorFindings = std::vector<DoctorFinding>;

// Each adds what it finds, or a line that all is well. The traces come first: looking at the module points them
// elsewhere, in the environment.
void LookAtTraces(const DoctorPlaces& places, DoctorFindings& findings);
void LookAtModule(const DoctorPlaces& places, DoctorFindings& findings);
void LookAtRegistry(const DoctorPlaces& places, DoctorFindings& findings);
void LookAtReports(const DoctorPlaces& places, DoctorFindings& findings);
void LookAtLimits(DoctorFindings& findings);

}  // namespace qx::ctl
