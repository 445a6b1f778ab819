// Sets a registry for one test, which names the report directory. The system's registry is not used.
#pragma once

#include <string>
#include <string_view>

#include "registry/RegistryPaths.h"
#include "tests/support/Support.h"

namespace qx::test {

// The registry has the content of `file`, the text of a registry file, until the end of the scope. There must be no
// other registry handle at the beginning and at the end of the scope.
class RegistryContent {
 public:
  explicit RegistryContent(std::string_view file) {
    WriteFile(directory_.File("registry"), file);
    qx::registry::ResetRegistry(directory_.Path().c_str());
  }
  ~RegistryContent() { qx::registry::ResetRegistry(nullptr); }
  RegistryContent(const RegistryContent&) = delete;
  RegistryContent& operator=(const RegistryContent&) = delete;

  const std::string& Directory() const { return directory_.Path(); }

 private:
  TempDir directory_;
};

// A registry in which `directory` is the report directory.
class ReportRoot : public RegistryContent {
 public:
  explicit ReportRoot(const std::string& directory) : RegistryContent(RegistryWithReportRoot(directory)) {}
};

}  // namespace qx::test
