// Plans and makes a first registry with its directories, or finds what an existing registry lacks.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The directories of a setup; each is absolute and has no "/" at its end.
struct SetupPlaces {
  std::string registry;
  std::string reports;
  std::string traces;
  bool names_reports = false;  // the operator has named the report directory

  [[nodiscard]] std::string RegistryFile() const { return registry + "/registry"; }
};

// A file or directory, as it is or as it would be made.
struct SetupStep {
  std::string path;
  bool is_directory = true;
  bool exists = false;
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0;
};

// A missing directory comes after the directory that contains it, and the registry file comes last. kRefused if a file
// has the name of a directory, or if every user could replace a file or directory that is made.
[[nodiscard]] Status PlanSteps(const SetupPlaces& places, std::vector<SetupStep>& steps);

// Makes the missing directories and the registry file in the order of the steps. `text` is the content of the registry
// file. If a run fails or is killed, there is no registry yet, so setup can be repeated. [the only thread]
[[nodiscard]] Status MakeSteps(const std::vector<SetupStep>& steps, const std::string& text);

// The text of a first registry: the pointer to the suite's root, and ReportRoot.
[[nodiscard]] Status FirstRegistry(const SetupPlaces& places, std::string& text);

// Whether the directory has any file that a load of the registry would try.
[[nodiscard]] bool HasRegistry(const std::string& directory);

// The commands that make an existing registry name a report directory, and that make the missing directories. Empty if
// nothing is missing.
// missing.
[[nodiscard]] std::vector<std::string> CommandsFor(const SetupPlaces& places);

}  // namespace qx::ctl
