#include "tests/trust/tracing.d/LoadedModule.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "provider/ModuleExports.h"
#include "tests/support/Support.h"

namespace qx::trust {

namespace {

template <typename Function>
Function Symbol(void* handle, const char* name) {
  void* const found = dlsym(handle, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function>(found);
}

}  // namespace

void MakeReportDirectory() {
  if (!std::filesystem::exists("/var/log/.etc")) throw std::runtime_error("to be run under host_paths");
  std::filesystem::create_directories(kReportDirectory);
  test::WriteFile("/etc/brollan/registry", test::RegistryWithReportRoot(kReportDirectory));
}

bool LoadedModule::Load() {
  handle_ = dlopen(QX_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) return false;
  if (*Symbol<CKrxAdapterModule**>(handle_, "pAdapterModule") == nullptr) {
    Unload();
    return false;
  }
  block_ = test::BlockBuilder::Request("GetReports");
  (void)block_->Block();
  Symbol<QxThreadBeginFunction>(handle_, "__threadbegin")();
  return true;
}

void LoadedModule::Unload() {
  if (handle_ == nullptr) return;
  if (block_ != nullptr) Symbol<QxThreadEndFunction>(handle_, "__threadend")(block_->Entry(0)->value);
  block_.reset();
  (void)dlclose(handle_);  // nothing could be done about a failure
  handle_ = nullptr;
}

int LoadedModule::Call(const char* function, const std::string& input, std::string& reply) {
  char* text = nullptr;
  const int result = Symbol<QxRequestFunction>(handle_, function)(block_->Block(), input.c_str(), &text);
  reply = text != nullptr ? text : "(null)";
  Symbol<QxFreeFunction>(handle_, "__free")(text);
  return result;
}

int LoadedModule::Fetch(const std::string& report, long start, std::string& reply) {
  return Call("GetReports", "<ReportData Name=\"" + report + "\" StartIndex=\"" + std::to_string(start) + "\"/>",
              reply);
}

}  // namespace qx::trust
