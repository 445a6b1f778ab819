// A host that misbehaves: it calls the module's functions directly, without any check of their order.
#pragma once

#include <string>

#include "provider/ModuleExports.h"
#include "provider/tools/RawBlock.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

using provider::RawBlock;

// Threads: its functions may be called on any thread between Load and Unload.
// Failure: a module that does not load or lacks a name ends the process with kHostFailed. The host has a process of its
// own.
class FaultHost {
 public:
  static constexpr int kHostFailed = 77;

  FaultHost(std::string module, std::string report) : module_(std::move(module)), report_(std::move(report)) {}
  ~FaultHost() { Unload(); }
  FaultHost(const FaultHost&) = delete;
  FaultHost& operator=(const FaultHost&) = delete;

  void Load();
  void Unload();

  // Makes a call and returns its outcome as text:
  //   result -1, no reply
  //   result 12, error 2 "Report data for report '../x' could not be read"
  //   result 0, echo                       the reply is the input
  //   result 0, <ReportData>               any other document, by its root
  //   result 0, no document                a reply that is not well formed
  std::string Ask(RequestFunction function, const wcs_gendata* block, const char* input) const;
  // Ask with a null reply pointer: "result 0".
  std::string AskWithoutReply(RequestFunction function, const wcs_gendata* block, const char* input) const;

  void BeginThread() const { thread_begin_(); }
  void EndThread(void* data) const { thread_end_(data); }
  int HandleVersion() const { return handle_version_(); }
  void StopRequest() const { stop_request_(); }
  void Free(void* p) const { free_(p); }
  int CreateModule() const { return create_module_(nullptr); }
  void DeleteModule() const { delete_module_(); }
  bool HasObject() const { return *object_ != nullptr; }

  // A report that can be read, or empty.
  const std::string& Report() const { return report_; }

 private:
  template <typename Function>
  void Find(const char* name, Function& function);

  std::string module_;
  std::string report_;
  void* library_ = nullptr;
  QxRequestFunction requests_[4] = {};
  QxThreadBeginFunction thread_begin_ = nullptr;
  QxThreadEndFunction thread_end_ = nullptr;
  QxHandleVersionFunction handle_version_ = nullptr;
  QxStopRequestFunction stop_request_ = nullptr;
  QxFreeFunction free_ = nullptr;
  QxCreateModuleFunction create_module_ = nullptr;
  QxDeleteModuleFunction delete_module_ = nullptr;
  CKrxAdapterModule** object_ = nullptr;
};

}  // namespace qx::ctl
