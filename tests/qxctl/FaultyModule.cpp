// A provider module that passes every call to the real one, and has one fault, which QX_FAULT names. A check of modules
// must find exactly this fault.
//
// QX_REAL_MODULE is the file of the real module.
//
//   wrong-reply         every hundredth reply of What is that of another module
//   leak-memory         8 KiB a request are never freed
//   leak-descriptors    one descriptor a request stays open
//   leak-one            one descriptor is open after the unload
//   stay-mapped         dlclose does not unmap the module
//   crash-null-block    a null block is read
//   alarm-null-block    a null block raises SIGALRM
//   crash-loop          a chain of nested blocks that loops overflows the stack
//   hang-loop           a chain of nested blocks that loops is followed forever
//   accept-no-thread    a block without thread id is accepted
//   keep-reply          a null reply pointer is written to
//   end-twice           ending a thread without data crashes
//   forget-refusal      a caller without the privilege is served
//   echo-malformed      Reflect echoes text that is not a document
//   deleted-stays       the module object stays after DeleteModule
//   load-crash          the module crashes while it is loaded for the second time
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "provider/ModuleExports.h"

namespace {

constexpr std::size_t kLeakBytes = 8192;
constexpr unsigned kWrongEvery = 100;

void* g_real = nullptr;
std::string_view g_fault;
std::atomic<unsigned> g_requests{0};
std::atomic<void*> g_leaked{nullptr};  // the newest; each points to the previous one

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(g_real, name));
}

bool Has(std::string_view fault) { return g_fault == fault; }

[[noreturn]] void Crash() {
  (void)std::signal(SIGSEGV, SIG_DFL);
  (void)std::raise(SIGSEGV);
  _exit(1);
}

const krx_element* Find(const wcs_gendata* params, int index) {
  for (int i = 0; params != nullptr && params->elements != nullptr && i < params->element_count; ++i) {
    if (params->elements[i] != nullptr && params->elements[i]->index == index) return params->elements[i];
  }
  return nullptr;
}

bool ConnectionLoops(const wcs_gendata* params) {
  constexpr int kBlocksMax = 1000;
  const krx_element* const connection = Find(params, kKrxConnection);
  if (connection == nullptr || connection->type != kKrxTypeNested) return false;
  const auto* block = static_cast<const krx_nested_block*>(connection->value);
  for (int i = 0; i < kBlocksMax && block != nullptr; ++i) block = block->next_block;
  return block != nullptr;
}

void Leak() {
  if (Has("leak-memory")) {
    void* const leaked = std::calloc(1, kLeakBytes);
    if (leaked == nullptr) return;
    void* newest = g_leaked;
    do {
      *static_cast<void**>(leaked) = newest;
    } while (!g_leaked.compare_exchange_weak(newest, leaked));
  }
  if (Has("leak-descriptors")) (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void MisbehaveAsRequested(const wcs_gendata* params, char** reply) {
  if (Has("crash-null-block") && params == nullptr) Crash();
  if (Has("alarm-null-block") && params == nullptr) (void)std::raise(SIGALRM);
  if (Has("keep-reply") && reply == nullptr) Crash();
  if (Has("crash-loop") && ConnectionLoops(params)) Crash();
  while (Has("hang-loop") && ConnectionLoops(params)) pause();
}

int Reply(char** reply, const char* text) {
  Real<QxFreeFunction>("__free")(*reply);
  *reply = strdup(text);
  return 0;
}

int Answer(const char* name, const wcs_gendata* params, const char* input, char** reply) {
  const unsigned number = ++g_requests;
  Leak();
  MisbehaveAsRequested(params, reply);
  const int result = Real<QxRequestFunction>(name)(params, input, reply);
  const std::string_view function = name;
  const bool is_of_report = function.starts_with("GetReport");
  if (Has("wrong-reply") && function == "What" && number % kWrongEvery == 0) return Reply(reply, "<Other/>\n");
  if (Has("accept-no-thread") && is_of_report && params != nullptr && Find(params, kKrxThreadId) == nullptr) {
    return Reply(reply, "<ReportData/>\n");
  }
  if (Has("forget-refusal") && is_of_report && Find(params, kKrxSecurityInterceptor) != nullptr) {
    return Reply(reply, "<ReportData/>\n");
  }
  if (Has("echo-malformed") && function == "Reflect" && reply != nullptr && *reply == nullptr && input != nullptr) {
    return Reply(reply, input);
  }
  return result;
}

void LoadReal() {
  constexpr char kLoadedOnce[] = "QX_FAULT_LOADED_ONCE";
  const char* const fault = std::getenv("QX_FAULT");
  g_fault = fault != nullptr ? fault : "";
  if (Has("load-crash") && std::getenv(kLoadedOnce) != nullptr) Crash();
  (void)setenv(kLoadedOnce, "1", 1);
  g_real = dlopen(std::getenv("QX_REAL_MODULE"), RTLD_NOW | RTLD_LOCAL);
  if (g_real == nullptr) Crash();
  pAdapterModule = *Real<CKrxAdapterModule**>("pAdapterModule");
  if (Has("stay-mapped")) {
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&LoadReal), &self) != 0) (void)dlopen(self.dli_fname, RTLD_NOW | RTLD_NODELETE);
  }
  if (Has("leak-one")) (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
}

struct LoadsReal {
  LoadsReal() { LoadReal(); }
  ~LoadsReal() { (void)dlclose(g_real); }
};

}  // namespace

CKrxAdapterModule* pAdapterModule = nullptr;

namespace {

LoadsReal g_loads_real;

}  // namespace

int What(const wcs_gendata* params, const char* input, char** reply) { return Answer("What", params, input, reply); }
int Reflect(const wcs_gendata* params, const char* input, char** reply) {
  return Answer("Reflect", params, input, reply);
}
int GetReports(const wcs_gendata* params, const char* input, char** reply) {
  return Answer("GetReports", params, input, reply);
}
int GetReportInstanceNames(const wcs_gendata* params, const char* input, char** reply) {
  return Answer("GetReportInstanceNames", params, input, reply);
}
void __threadbegin(void) { Real<QxThreadBeginFunction>("__threadbegin")(); }
void __threadend(void* user_data) {
  if (Has("end-twice") && user_data == nullptr) Crash();
  Real<QxThreadEndFunction>("__threadend")(user_data);
}
int __handle_version(void) { return Real<QxHandleVersionFunction>("__handle_version")(); }
void __stoprequest(void) { Real<QxStopRequestFunction>("__stoprequest")(); }
void __free(void* p) { Real<QxFreeFunction>("__free")(p); }

int CreateModule(void* path) {
  const int created = Real<QxCreateModuleFunction>(QX_SYMBOL_CREATE_MODULE)(path);
  pAdapterModule = *Real<CKrxAdapterModule**>("pAdapterModule");
  return created;
}
void DeleteModule() {
  Real<QxDeleteModuleFunction>(QX_SYMBOL_DELETE_MODULE)();
  if (!Has("deleted-stays")) pAdapterModule = nullptr;
}
CKrxAdapterModule* ProviderClassFactory(void* path) {
  return Real<QxProviderClassFactoryFunction>(QX_SYMBOL_PROVIDER_CLASS_FACTORY)(path);
}
