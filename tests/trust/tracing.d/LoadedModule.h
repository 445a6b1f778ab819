// The built module as the service has it: loaded with dlopen, called by one thread.
#pragma once

#include <memory>
#include <string>

#include "tests/support/BlockBuilder.h"

namespace qx::trust {

// Where the module looks for everything: run these programs under host_paths, which sets up an /etc of their own.
inline constexpr const char* kReportDirectory = "/etc/brollan/reports";
// Writes the registry that says so, and makes the directory.
void MakeReportDirectory();

class LoadedModule {
 public:
  // Whether the module could be loaded and has made its object. A host must check the object, because it is missing
  // without memory. If this is false, nothing else may be called.
  [[nodiscard]] bool Load();
  ~LoadedModule() { Unload(); }
  void Unload();

  // The call's result; `reply` is the text, or "(null)".
  int Call(const char* function, const std::string& input, std::string& reply);
  // A transfer of `report` from `start` on.
  int Fetch(const std::string& report, long start, std::string& reply);

 private:
  void* handle_ = nullptr;
  std::unique_ptr<test::BlockBuilder> block_;
};

}  // namespace qx::trust
