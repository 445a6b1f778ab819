// A host for the built module: loads it in a child process with dlopen, as the service does, and calls its functions.
//
// The test program itself never loads the module. Each test forks, the child does the work, and the test compares the
// text that the child returns. A crash, a finding of a sanitizer or a failed load is a last line "[...]".
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "provider/ModuleExports.h"
#include "tests/support/BlockBuilder.h"
#include "tests/support/Support.h"

namespace qx::test {

// The module, from dlopen to dlclose. Throws std::runtime_error if it cannot be loaded or lacks a symbol.
class LoadedModule {
 public:
  LoadedModule();
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  // An exported function or variable by its symbol.
  template <typename Pointer>
  Pointer Symbol(const char* name) const {
    return reinterpret_cast<Pointer>(Find(name));
  }

  // Makes one request. Returns "RESULT REPLY", with "(null)" for no reply; the module's reply is freed with __free.
  std::string Call(const char* function, const wcs_gendata* block, const char* input) const;

  std::string What(const wcs_gendata* block) const { return Call("What", block, ""); }
  void ThreadBegin() const { Symbol<QxThreadBeginFunction>("__threadbegin")(); }
  void ThreadEnd(void* user_data) const { Symbol<QxThreadEndFunction>("__threadend")(user_data); }
  // The addresses of the module's variables.
  const char** Text(const char* variable) const { return Symbol<const char**>(variable); }
  CKrxAdapterModule*& Object() const { return *Symbol<CKrxAdapterModule**>("pAdapterModule"); }

 private:
  void* Find(const char* name) const;
  void* handle_;
};

// The text that `body` returns in a forked child, followed by the child's standard error. The child ends without the
// test program's own clean-up; under the address sanitizer it searches for leaks first.
std::string InChild(const std::function<std::string()>& body);

// The output of a command, including standard error, with "[status N]" after it if N is not 0.
std::string OutputOf(const std::string& command);

// The requests of one service thread: its block, and the thread data that the module stores in it.
class ServiceThread {
 public:
  explicit ServiceThread(const LoadedModule& module, const std::vector<BlockDepartment>* departments = nullptr);
  ~ServiceThread();
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

  std::string Ask(const std::string& report, int start, int limit = -1);
  std::string Call(const char* function, const char* input) { return module_.Call(function, block_->Block(), input); }
  wcs_gendata* Block() { return block_->Block(); }
  void* Data() { return block_->Entry(0)->value; }

 private:
  const LoadedModule& module_;
  std::unique_ptr<BlockBuilder> block_;
};

// A test of the module. The trace is in a private directory (level 0 by default), the trace configuration is empty, and
// the registry names `Reports()` as the report directory. For each test, every fixed path is empty again.
class ModuleTest : public testing::Test {
 protected:
  ModuleTest();
  ~ModuleTest() override;

  // The report directory; the same path in every run.
  static const std::string& Reports();
  // Adds records to a report.
  static void Append(const std::string& report, unsigned slots, const std::vector<std::string>& records);

  void SetLevel(int level) { SetEnvironment("QX_LOG_DEBUG_LEVEL", std::to_string(level)); }
  void SetEnvironment(const char* name, const std::string& value) {
    environment_.push_back(std::make_unique<ScopedEnv>(name, value.c_str()));
  }
  std::string LogPath() const { return logs_.File("log.qxremconxfer"); }
  // The log with placeholders for varying parts: <STAMP>, <THREAD>, <ID>, <ADDRESS>, <LOW32>, <VERSION>, <DATE>.
  std::string NormalisedLog() const;
  // The entries of the log after its header block.
  std::string LogEntries() const;

  TempDir logs_;

 private:
  std::vector<std::unique_ptr<ScopedEnv>> environment_;
};

}  // namespace qx::test
