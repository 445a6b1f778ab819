// The directory for the traces of qxctl and of the module that it loads.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// When the module is loaded, it opens, and so empties, the log of its name in the trace directory. A service may be
// writing the same file. So the trace directory is changed before the module is loaded: to a private one, or to one
// that the operator named.
//
// Threads: used by the only thread; it changes the environment.
// Owns: the private directory, which is removed with its files at destruction, so unload the module before.
class TraceDirectory {
 public:
  TraceDirectory() = default;
  ~TraceDirectory();
  TraceDirectory(const TraceDirectory&) = delete;
  TraceDirectory& operator=(const TraceDirectory&) = delete;

  // Traces at `level` into `directory`, which is created if it is missing, and stays. Refused if it already has a log
  // of a module, which might be the service's, or a symbolic link in place of a log.
  Status Keep(const std::string& directory, int level);

  // Makes sure that loading the module changes no file of a service: unless Keep or the environment names a directory,
  // tracing is off, and the files that the module opens anyway are in a directory of mode 0700 that only this process
  // knows.
  Status ProtectService();

 private:
  std::string private_;
  bool is_set_ = false;
};

}  // namespace qx::ctl
