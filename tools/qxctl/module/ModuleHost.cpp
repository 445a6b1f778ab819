#include "tools/qxctl/module/ModuleHost.h"

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace qx::ctl {

namespace {

const char kModuleFile[] = "QXRemConXfer.so";
const char kInstalledModule[] = "/opt/norrlek/QuaxelSuite/KRX/Provider/QXRemConXfer.so";

constexpr std::array<const char*, 4> kRequestNames = {"What", "Reflect", "GetReports", "GetReportInstanceNames"};

// dlopen reports its reason as a text and sets no errno.
std::string LoaderError() {
  const char* const text = dlerror();
  return text != nullptr ? text : "no reason given";
}

}  // namespace

const char* NameOf(RequestFunction function) { return kRequestNames[static_cast<std::size_t>(function)]; }

Status ModuleHost::Load(const std::string& path, std::unique_ptr<ModuleHost>& host) {
  std::error_code error;
  const std::string absolute = std::filesystem::absolute(path, error).string();  // dlopen would search for a bare name
  if (error || access(absolute.c_str(), F_OK) != 0) {
    return {ExitCode::kNotFound, "there is no module " + path + "; name it with --module or in QX_MODULE"};
  }
  void* const library = dlopen(absolute.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return {ExitCode::kIo, "cannot load the module: " + LoaderError()};
  std::unique_ptr<ModuleHost> loaded(new ModuleHost(library));
  std::string missing;
  if (!loaded->FindEntryPoints(missing)) {
    return {ExitCode::kIo, path + " is not a provider module: it does not export " + missing};
  }
  host = std::move(loaded);
  return {};
}

ModuleHost::~ModuleHost() {
  (void)dlclose(library_);  // if it fails, the library stays mapped, which does no harm
}

template <typename Function>
bool ModuleHost::Find(const char* name, Function& function, std::string& missing) {
  function = reinterpret_cast<Function>(dlsym(library_, name));
  if (function == nullptr) missing = name;
  return function != nullptr;
}

bool ModuleHost::FindEntryPoints(std::string& missing) {
  for (std::size_t i = 0; i < requests_.size(); ++i) {
    if (!Find(kRequestNames[i], requests_[i], missing)) return false;
  }
  return Find("__threadbegin", thread_begin_, missing) && Find("__threadend", thread_end_, missing) &&
         Find("__free", free_, missing);
}

CallResult ModuleHost::Call(RequestFunction function, const wcs_gendata* block, const std::string& input) const {
  CallResult call;
  char* reply = nullptr;
  const auto start = std::chrono::steady_clock::now();
  call.result = requests_[static_cast<std::size_t>(function)](block, input.c_str(), &reply);
  call.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (reply == nullptr) return call;
  call.reply = reply;
  free_(reply);
  return call;
}

std::string FindModule(const std::string& given) {
  if (!given.empty()) return given;
  const char* const named = std::getenv("QX_MODULE");
  if (named != nullptr && *named != '\0') return named;
  std::error_code ignored;  // without /proc, only the installed module can be found
  const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
  for (const std::filesystem::path& candidate : {folder / kModuleFile, folder.parent_path() / "lib" / kModuleFile}) {
    if (!folder.empty() && access(candidate.c_str(), F_OK) == 0) return candidate.string();
  }
  return kInstalledModule;
}

WorkerThread::WorkerThread(const ModuleHost& module, BlockValues values) : module_(module), block_(std::move(values)) {
  module_.BeginThread();
}

WorkerThread::~WorkerThread() { module_.EndThread(block_.ProviderData()); }

CallResult WorkerThread::Call(RequestFunction function, const std::string& input) {
  block_.SetFunctionId(NameOf(function));
  return module_.Call(function, block_.Raw(), input);
}

}  // namespace qx::ctl
