// qxview: shows the reports of this machine, or of a collector, in a browser. It only reads; it changes nothing.
//
// The command line is read with the table and the parser of qxctl's area cli. The exit codes are those of qxctl.
#include "debug/Debug.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/program/Program.h"
#include "tools/qxview/cli/ViewCommand.h"

// The module's classes need this object. It writes nothing: qxview has no traces of its own.
__attribute__((init_priority(101))) CDebug Debug;

namespace {

constexpr const qx::ctl::Command* kCommands[] = {&qx::view::kViewCommand};

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): when memory runs out, ending here is all that is left to do.
int main(int argc, char** argv) {
  qx::ctl::HoldBrokenPipe();
  return static_cast<int>(
      qx::ctl::RunProgram({.name = "qxview", .version = QX_VERSION, .commands = kCommands}, argc, argv));
}
