#include "tests/module/Host.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "reportfile/ReportFileBase.h"

// Only there under the address sanitizer.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace qx::test {

namespace {

constexpr char kRegistry[] =
    "[HKEY_LOCAL_MACHINE]\n"
    "[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\n"
    "ReportRoot=s=/etc/brollan/reports\n"
    "\n\n\n\n\n\n\n";

void WriteAll(int file, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(file, text.data() + done, text.size() - done);
    if (n <= 0) _exit(99);
    done += static_cast<std::size_t>(n);
  }
}

std::string ReadToEnd(int file) {
  std::string text;
  char part[4096];
  for (ssize_t n = 0; (n = read(file, part, sizeof part)) > 0;) text.append(part, static_cast<std::size_t>(n));
  return text;
}

[[noreturn]] void RunChild(const std::function<std::string()>& body, int to_parent) {
  dup2(to_parent, STDERR_FILENO);
  std::string text;
  try {
    text = body();
  } catch (const std::exception& e) {
    text = std::string("[exception: ") + e.what() + "]";
  }
  WriteAll(to_parent, text);
  const bool leaks = __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
  _exit(leaks ? 23 : 0);
}

std::string StatusText(int status) {
  if (WIFSIGNALED(status)) return "[signal " + std::to_string(WTERMSIG(status)) + "]";
  if (WEXITSTATUS(status) != 0) return "[status " + std::to_string(WEXITSTATUS(status)) + "]";
  return {};
}

std::string Replaced(const std::string& text, const char* pattern, const char* by) {
  return std::regex_replace(text, std::regex(pattern), by);
}

}  // namespace

LoadedModule::LoadedModule() : handle_(dlopen(QX_MODULE_PATH, RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) throw std::runtime_error(dlerror());
}

LoadedModule::~LoadedModule() { dlclose(handle_); }

void* LoadedModule::Find(const char* name) const {
  void* symbol = dlsym(handle_, name);
  if (symbol == nullptr) throw std::runtime_error(std::string("no symbol ") + name);
  return symbol;
}

std::string LoadedModule::Call(const char* function, const wcs_gendata* block, const char* input) const {
  char garbage = 0;
  char* reply = &garbage;
  const int result = Symbol<QxRequestFunction>(function)(block, input, &reply);
  const std::string text = std::to_string(result) + " " + (reply != nullptr ? reply : "(null)");
  Symbol<QxFreeFunction>("__free")(reply);
  return text;
}

std::string InChild(const std::function<std::string()>& body) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    RunChild(body, ends[1]);
  }
  close(ends[1]);
  std::string text = ReadToEnd(ends[0]);
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child) throw std::runtime_error("no child");
  return text + StatusText(status);
}

std::string OutputOf(const std::string& command) {
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
  std::string text = ReadToEnd(fileno(pipe));
  return text + StatusText(pclose(pipe));
}

ServiceThread::ServiceThread(const LoadedModule& module, const std::vector<BlockDepartment>* departments)
    : module_(module), block_(BlockBuilder::Request("GetReports")) {
  if (departments != nullptr) block_->Security("operator", *departments);
  module_.ThreadBegin();
}

ServiceThread::~ServiceThread() { module_.ThreadEnd(Data()); }

std::string ServiceThread::Ask(const std::string& report, int start, int limit) {
  std::string input = "<ReportData Name=\"" + report + "\" StartIndex=\"" + std::to_string(start) + "\"";
  if (limit != -1) input += " NrRecords=\"" + std::to_string(limit) + "\"";
  return Call("GetReports", (input + "/>").c_str());
}

ModuleTest::ModuleTest() {
  for (const char* directory : {"/etc/brollan", "/etc/norrlek/QuaxelSuite/TraceConfig", "/var/log/brollan"}) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) std::filesystem::remove_all(entry);
  }
  std::filesystem::create_directory(Reports());
  WriteFile("/etc/brollan/registry", kRegistry);
  SetEnvironment("QX_LOG_RINGBUF_DIR", logs_.Path());
  SetEnvironment("QX_LOG_FILE_MAX_SIZE", "100000000");
  SetLevel(0);
}

ModuleTest::~ModuleTest() {
  while (!environment_.empty()) environment_.pop_back();  // the old values come back in reverse order
}

const std::string& ModuleTest::Reports() {
  static const std::string path = "/etc/brollan/reports";
  return path;
}

void ModuleTest::Append(const std::string& report, unsigned slots, const std::vector<std::string>& records) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open((Reports() + "/" + report).c_str(), slots));
  for (const std::string& record : records) ASSERT_TRUE(store.writeLine(record.c_str()));
}

std::string ModuleTest::NormalisedLog() const {
  std::string text = ReadFile(LogPath());
  text = Replaced(text, "(^|\n)[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} \\[[0-9A-F]{8}\\] ",
                  "$1<STAMP> [<THREAD>] ");
  text = Replaced(text, "0x0x[0-9a-f]+", "<ADDRESS>");
  text = Replaced(text, "data at 0x[0-9a-f]+", "data at <ADDRESS>");
  text = Replaced(text, "(pAdapterModule|pString|address|memory at) (= )?0x(?!00000000)[0-9A-F]{8}", "$1 $2<LOW32>");
  text = Replaced(text, "hKey = -?[0-9]+", "hKey = <LOW32>");
  text = Replaced(text, "(thread with id|hreadId|current thread ID)( ?= ?)-?[0-9]+", "$1$2<ID>");
  text = Replaced(text, "File Version:    [0-9.]+", "File Version:    <VERSION>");
  text = Replaced(text, "version=\"[0-9.]+\" date=\"[0-9/:-]+\"", "version=\"<VERSION>\" date=\"<DATE>\"");
  text = Replaced(text, "Build:           [0-9]{4}/[0-9]{2}/[0-9]{2}-[0-9]{2}:[0-9]{2}\n", "Build:           <DATE>\n");
  return text;
}

std::string ModuleTest::LogEntries() const {
  std::string text = NormalisedLog();
  const std::size_t header_end = text.find("# End of header.");
  if (header_end == std::string::npos) throw std::runtime_error("the log has no header");
  return text.substr(text.find('\n', header_end) + 1);
}

}  // namespace qx::test
