// Where the traces of qxctl and of the module that it loads go.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Loading the module opens, and so empties, the log of the module's name in the trace directory. A service may be
// writing that very file, so before anything is loaded the trace directory is pointed elsewhere: at a private one, or
// at one that the operator named.
//
// Threads: used by the only thread; it changes the environment.
// Owns: the private directory, removed with what it holds at destruction, so unload the module before.
class TraceDirectory {
 public:
  TraceDirectory() = default;
  ~TraceDirectory();
  TraceDirectory(const TraceDirectory&) = delete;
  TraceDirectory& operator=(const TraceDirectory&) = delete;

  // Traces at `level` into `directory`, which is made if it is missing and stays. Refused when a module's log stands
  // there already: it might be the service's.
  Status Keep(const std::string& directory, int level);

  // Makes sure that loading the module touches nothing of a service: with nothing to keep, tracing is off and what is
  // opened all the same is opened in a directory of mode 0700 that only this process knows.
  Status ProtectService();

 private:
  std::string private_;
  bool is_set_ = false;
};

}  // namespace qx::ctl
