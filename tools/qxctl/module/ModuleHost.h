// Does the service's work: loads a provider module and calls it on a worker thread.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "provider/ModuleExports.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/module/RequestBlock.h"

namespace qx::ctl {

enum class RequestFunction { kWhat, kReflect, kGetReports, kGetReportInstanceNames };

// The exported name: "What", "Reflect", "GetReports", "GetReportInstanceNames".
const char* NameOf(RequestFunction function);

struct CallResult {
  int result = 0;
  std::optional<std::string> reply;  // unset: the module returned no reply
  double seconds = 0;                // of the call alone
};

// A loaded module.
//
// Threads: one thread, like the rest of the tool; the module itself allows many.
// Owns: the loaded library, closed at destruction. Before Load, set another trace directory (TraceDirectory).
class ModuleHost {
 public:
  // Loads `path`. If there is no file, the code is kNotFound; if the file is not a provider module, kIo.
  static Status Load(const std::string& path, std::unique_ptr<ModuleHost>& host);
  ~ModuleHost();
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  CallResult Call(RequestFunction function, const wcs_gendata* block, const std::string& input) const;
  void BeginThread() const { thread_begin_(); }
  void EndThread(void* provider_data) const { thread_end_(provider_data); }

 private:
  explicit ModuleHost(void* library) : library_(library) {}

  // False if a name is missing; `missing` is the first one.
  bool FindEntryPoints(std::string& missing);
  template <typename Function>
  bool Find(const char* name, Function& function, std::string& missing);

  void* library_;
  std::array<QxRequestFunction, 4> requests_{};  // by RequestFunction
  QxThreadBeginFunction thread_begin_ = nullptr;
  QxThreadEndFunction thread_end_ = nullptr;
  QxFreeFunction free_ = nullptr;
};

// The path of the module: `given`, else QX_MODULE of the environment, else the module next to the executable, else the
// one in its ../lib, else the path where the suite installs it.
std::string FindModule(const std::string& given);

// One worker thread of the service, from its begin hook to its end hook. All calls use one block. Its element 1 keeps
// the module's data between the calls, so all calls of a transfer need one WorkerThread.
class WorkerThread {
 public:
  WorkerThread(const ModuleHost& module, BlockValues values);
  ~WorkerThread();
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  CallResult Call(RequestFunction function, const std::string& input);
  const RequestBlock& Block() const { return block_; }

 private:
  const ModuleHost& module_;
  RequestBlock block_;
};

}  // namespace qx::ctl
