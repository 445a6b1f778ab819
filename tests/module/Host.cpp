#include "tests/module/Host.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "reportfile/ReportFileBase.h"
#include "tests/support/ChildProcess.h"

// This function exists only under the address sanitizer.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace qx::test {

namespace {

constexpr char kRegistry[] =
    "[HKEY_LOCAL_MACHINE]\n"
    "[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\n"
    "ReportRoot=s=/etc/brollan/reports\n"
    "\n\n\n\n\n\n\n";

std::string ReadToEnd(int file) {
  std::string text;
  char part[4096];
  for (ssize_t n = 0; (n = read(file, part, sizeof part)) > 0;) text.append(part, static_cast<std::size_t>(n));
  return text;
}

int StatusWithLeaks() {
  return __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0 ? 23 : 0;
}

std::string StatusText(int status) {
  if (WIFSIGNALED(status)) return "[signal " + std::to_string(WTERMSIG(status)) + "]";
  if (WEXITSTATUS(status) != 0) return "[status " + std::to_string(WEXITSTATUS(status)) + "]";
  return {};
}

// A part of a line that differs from run to run: a sequence of `characters` after `prefix`. A sequence of zeros (a null
// pointer) never differs.
struct Variable {
  std::string_view prefix;
  std::string_view characters;
  std::string_view placeholder;
};

constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
constexpr std::string_view kNumber = "-0123456789";
constexpr std::string_view kDate = "0123456789/:-";

constexpr Variable kVariables[] = {
    {"0x0x", kHexDigits, "<ADDRESS>"},
    {"data at 0x", kHexDigits, "<ADDRESS>"},
    {"pAdapterModule = 0x", kHexDigits, "<LOW32>"},
    {"pString = 0x", kHexDigits, "<LOW32>"},
    {"free address 0x", kHexDigits, "<LOW32>"},
    {"memory at 0x", kHexDigits, "<LOW32>"},
    {"hKey = ", kNumber, "<LOW32>"},
    {"thread with id=", kNumber, "<ID>"},
    {"threadId=", kNumber, "<ID>"},
    {"current thread ID = ", kNumber, "<ID>"},
    {"File Version:    ", "0123456789.", "<VERSION>"},
    {"version=\"", "0123456789.", "<VERSION>"},
    {"Build:           ", kDate, "<DATE>"},
    {"date=\"", kDate, "<DATE>"},
};

void Replace(std::string& text, const Variable& variable) {
  for (std::size_t at = 0; (at = text.find(variable.prefix, at)) != std::string::npos;) {
    at += variable.prefix.size();
    const std::size_t end = std::min(text.find_first_not_of(variable.characters, at), text.size());
    if (text.find_first_not_of('0', at) >= end) continue;
    text.replace(at, end - at, variable.placeholder);
  }
}

// "2026-01-31 10:20:30.123 [0123ABCD] QXRemConXfer  text" => "<STAMP> [<THREAD>] QXRemConXfer  text"
std::string WithoutStamp(const std::string& line) {
  constexpr std::string_view kShape = "dddd-dd-dd dd:dd:dd.ddd [xxxxxxxx] ";
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const char c = i < line.size() ? line[i] : '\0';
    const std::string_view digits = kHexDigits.substr(0, kShape[i] == 'd' ? 10 : std::string_view::npos);
    const bool is_class = kShape[i] == 'd' || kShape[i] == 'x';
    if (is_class ? digits.find(c) == std::string_view::npos : c != kShape[i]) return line;
  }
  return "<STAMP> [<THREAD>] " + line.substr(kShape.size());
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
  return TextOfChild(body, {.with_errors = true, .status_at_end = StatusWithLeaks});
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
  while (!environment_.empty()) environment_.pop_back();  // the old values are restored in reverse order
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
  std::istringstream log(ReadFile(LogPath()));
  std::string text;
  for (std::string line; std::getline(log, line);) text += WithoutStamp(line) + "\n";
  for (const Variable& variable : kVariables) Replace(text, variable);
  return text;
}

std::string ModuleTest::LogEntries() const {
  std::string text = NormalisedLog();
  const std::size_t header_end = text.find("# End of header.");
  if (header_end == std::string::npos) throw std::runtime_error("the log has no header");
  return text.substr(text.find('\n', header_end) + 1);
}

}  // namespace qx::test
