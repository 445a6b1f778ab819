// Checks everything that the module needs to serve requests, and changes nothing.
#pragma once

#include <cstdint>
#include <optional>
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
  std::string fact;       // with every path in quotes
  std::string command;    // what an operator can paste to see more or to repair it; empty if all is well
};

// The severity of a finding, from its code. [any thread]
[[nodiscard]] Severity SeverityOf(std::string_view code);
// "module", "registry", "reports", "traces", "limits"
[[nodiscard]] const char* SectionOf(std::string_view code);

// The checked directories and files. All except the module can be replaced, so that tests, and checks of files copied
// from another machine, can use other ones.
struct DoctorPlaces {
  std::string module;
  std::string registry_directory = registry::kSystemDirectory;
  std::string report_directory;  // empty: that of the registry
  std::string trace_settings_directory = debug::kTraceConfigDirectory;
  std::string process_directory = "/proc";
  std::string application = "QXRemConXfer";
  std::optional<std::int64_t> stale_seconds;  // a report whose newest record is older is a finding
};

using DoctorFindings = std::vector<DoctorFinding>;

// "PATH", as facts show it.
[[nodiscard]] inline std::string InQuotes(const std::string& path) { return "\"" + path + "\""; }

// The free space that the file system of a directory has for an ordinary user.
enum class SpaceState { kEnough, kLow, kFull };
struct Space {
  SpaceState state = SpaceState::kEnough;  // also if the system does not show it
  std::string fact;
  std::string command;
};
[[nodiscard]] Space SpaceFor(const std::string& directory);

// Each function adds its findings, or one finding that all is well. CheckTraces must be called first, because
// CheckModule changes the trace directory in the environment.
void CheckTraces(const DoctorPlaces& places, DoctorFindings& findings);
void CheckModule(const DoctorPlaces& places, DoctorFindings& findings);
void CheckRegistry(const DoctorPlaces& places, DoctorFindings& findings);
void CheckReports(const DoctorPlaces& places, DoctorFindings& findings);
void CheckLimits(DoctorFindings& findings);

}  // namespace qx::ctl
