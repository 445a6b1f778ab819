// Uses the built module as the service does: it is loaded with dlopen, and one thread calls it.
#pragma once

#include <memory>
#include <string>

#include "tests/support/BlockBuilder.h"

namespace qx::trust {

// The paths of the module are fixed, so these programs run under host_paths, which sets up an /etc of their own.
inline constexpr const char* kReportDirectory = "/etc/brollan/reports";
// Writes a registry that names this directory, and makes the directory.
void MakeReportDirectory();

class LoadedModule {
 public:
  // Loads the module. Returns whether it could be loaded and has made its object. A host must check the object, because
  // it is missing if there was no memory. If this returns false, no other function may be called.
  [[nodiscard]] bool Load();
  ~LoadedModule() { Unload(); }
  void Unload();

  // Makes a call and returns its result; `reply` is the text, or "(null)".
  int Call(const char* function, const std::string& input, std::string& reply);
  // Transfers `report` from `start` on.
  int Fetch(const std::string& report, long start, std::string& reply);

 private:
  void* handle_ = nullptr;
  std::unique_ptr<test::BlockBuilder> block_;
};

}  // namespace qx::trust
