// Reads the environment variables that the header of the log shows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qx::debug {

// The values of these variables. They are read once, so the header after a later wrap of the ring shows the values at
// the start.
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
