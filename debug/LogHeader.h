// The environment variables that the log header shows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qx::debug {

// The values of the header's variables, taken once: the header of a later ring wrap shows what the process started
// with.
//
// Threads: the owner of the trace facility's lock.
class HeaderVariables {
 public:
  struct Variable {
    const char* name;
    std::string value;  // "NotSet" when the variable was not set
  };

  // Takes the variables' values from the environment. Throws std::bad_alloc.
  void Read();

  // Variables of the system and of the facility, then those that represent the suite's configuration file; in the order
  // of the header. Empty before Read.
  [[nodiscard]] const std::vector<Variable>& Environment() const noexcept { return environment_; }
  [[nodiscard]] const std::vector<Variable>& ConfigurationFile() const noexcept { return configuration_file_; }

 private:
  std::vector<Variable> environment_;
  std::vector<Variable> configuration_file_;
};

}  // namespace qx::debug
