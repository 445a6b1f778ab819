// Runs the built qxctl as a user would: a child process with arguments, input, environment and working directory.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Support.h"

namespace qx::test {

struct Ran {
  int code = -1;  // exit code; minus the signal that killed it
  std::string out;
  std::string err;
};

// The way to start a child. Each output is a pipe unless `Start` names another target.
struct Start {
  std::string directory;
  std::string input = {};
  std::map<std::string, std::string> environment = {};  // added to this process's
  std::string out_file = {};                            // opened by the child for its standard output
  bool close_out = false;
  bool out_is_terminal = false;  // a terminal that changes no byte
  bool err_is_terminal = false;
};

// A started child. Wait returns its error text.
class Child {
 public:
  Child(const std::vector<std::string>& command, const Start& start);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Waits for the first output and returns some of it.
  std::string ReadSome();
  void Kill(int signal) const;
  // Waits, without reading, until the child is in this system call. False if it takes too long.
  bool WaitUntilItIsIn(long call, int ms_max = 20'000) const;
  // Waits, without reading, until the child has ended. False if it takes too long.
  bool WaitUntilItEnds() const;
  // Reads both outputs to their end, and waits for the end of the child.
  Ran Wait();

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string input_;
};

// The paths of the tested files.
std::string QxctlPath();
std::string ModulePath();
std::string FakeModulePath();

// A working directory with a report directory below it, which the module uses if no registry names another one.
class QxctlFixture {
 public:
  QxctlFixture();

  const TempDir& Dir() const { return dir_; }
  std::string ReportPath(std::string_view name) const { return dir_.File("Reports/" + std::string(name)); }

  // Makes a report through the store class, and appends the texts.
  void MakeReport(const std::string& name, unsigned slots, const std::vector<std::string>& texts) const;
  void Append(const std::string& name, const std::vector<std::string>& texts) const;

  Ran Qxctl(const std::vector<std::string>& arguments, const std::string& input = "") const;
  // Runs qxctl with `start`, in the fixture's directory.
  Ran Qxctl(const std::vector<std::string>& arguments, Start start) const;
  // The leak check at the end of qxctl is off, because it takes a third of a start. The sessions of the book make it
  // for each command.
  Start StartHere() const;

 private:
  TempDir dir_;
};

}  // namespace qx::test
