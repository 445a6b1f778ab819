// The exported functions: each passes a raw call of the service to the module object, and the result back.
//
// Each request function does the same: it wraps the block, parses the input, runs the operation and duplicates the
// reply. Exceptions are caught only in this file; the service then gets -1 and a null reply.
#include <exception>
#include <memory>
#include <utility>

#include "debug/Debug.h"
#include "markup/Markup.h"
#include "provider/BufferPool.h"
#include "provider/FileTransferProvider.h"
#include "provider/KrxAdapterModule.h"
#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"
#include "provider/ModuleExports.h"

using qx::provider::Low32;

CKrxAdapterModule* pAdapterModule = nullptr;

namespace {

constexpr int kFailed = -1;

// Returns the result of `run`, or `on_failure` after a C++ exception. If the service cancels its thread, the unwinding
// is not a C++ exception, and must reach the end of the thread's stack: a handler that ends it would abort the process.
template <typename Run>
auto Guarded(decltype(std::declval<Run>()()) on_failure, Run run) {
  try {
    return run();
  } catch (...) {
    if (std::current_exception() == nullptr) throw;
    return on_failure;
  }
}

template <typename Run>
void GuardedHook(Run run) {
  (void)Guarded(0, [&] {
    run();
    return 0;
  });
}

// A copy of the document's text for the service; null if the text is not one well-formed document.
char* ReplyOf(const CMarkup& document) {
  return document.IsWellFormed() ? CKrxAdapterModule::ReplyString(document.GetDoc()) : nullptr;
}

// Runs one request. `operation` is called with the block's parameters, the input document and the empty output
// document, and its result is returned.
//
// A caller that was refused for a missing privilege never gets a record: the output then has the refusal and the
// report, which are not one well-formed document, so that there is no reply.
template <typename Operation>
int RunRequest(const wcs_gendata* params, const char* input, char** reply, Operation operation) {
  if (reply != nullptr) *reply = nullptr;
  if (params == nullptr) return kFailed;
  return Guarded(kFailed, [&] {
    KrxRequestParams request(params);
    CMarkup in;
    (void)in.SetDoc(input != nullptr ? input : "");  // the operations ask whether it is well formed
    CMarkup out;
    const int result = operation(request, in, out);
    char* text = ReplyOf(out);
    if (reply != nullptr) {
      *reply = text;
    } else {
      CKrxAdapterModule::FreeReplyString(text);
    }
    qx::provider::transfer_buffers.Return(out.ReleaseDoc());  // the pool keeps it if it is large
    return result;
  });
}

}  // namespace

int What(const wcs_gendata* params, const char* input, char** reply) {
  return RunRequest(params, input, reply, [](KrxRequestParams& request, CMarkup& in, CMarkup& out) {
    return pAdapterModule->What(request, in, out);
  });
}

int Reflect(const wcs_gendata* params, const char* input, char** reply) {
  return RunRequest(params, input, reply, [](KrxRequestParams& request, CMarkup& in, CMarkup& out) {
    return pAdapterModule->Reflect(request, in, out);
  });
}

int GetReports(const wcs_gendata* params, const char* input, char** reply) {
  return RunRequest(params, input, reply, [](KrxRequestParams& request, CMarkup& in, CMarkup& out) {
    return static_cast<CFileTransferProvider*>(pAdapterModule)->GetReports(request, in, out);
  });
}

int GetReportInstanceNames(const wcs_gendata* params, const char* input, char** reply) {
  return RunRequest(params, input, reply, [](KrxRequestParams& request, CMarkup& in, CMarkup& out) {
    return static_cast<CFileTransferProvider*>(pAdapterModule)->GetReportInstanceNames(request, in, out);
  });
}

void __threadbegin() {
  GuardedHook([] { pAdapterModule->__threadbegin(); });
}

void __threadend(void* user_data) {
  GuardedHook([&] { pAdapterModule->__threadend(user_data); });
}

int __handle_version() {
  return Guarded(kFailed, [] { return pAdapterModule->__handle_version(); });
}

void __stoprequest() {
  GuardedHook([] { pAdapterModule->__stoprequest(); });
}

void __free(void* p) {
  GuardedHook([&] { pAdapterModule->__free(p); });
}

CKrxAdapterModule* ProviderClassFactory(void* path) {
  return Guarded(nullptr, [&]() -> CKrxAdapterModule* {
    auto module = std::make_unique<CFileTransferProvider>();
    (void)module->Init(path);  // always true
    return module.release();
  });
}

int CreateModule(void* path) {
  pAdapterModule = ProviderClassFactory(path);
  if (pAdapterModule == nullptr) return 0;
  QX_TRACE(6, "\nWCSP_MAIN Create    : CreateModule - allocate pAdapterModule = 0x%08X", Low32(pAdapterModule));
  return Guarded(1, [] {
    (void)pAdapterModule->OnLoad();  // the result of the start hook is ignored
    return 1;
  });
}

void DeleteModule() {
  QX_TRACE(6, "\nWCSP_MAIN Delete    : DeleteModule - delete pAdapterModule = 0x%08X", Low32(pAdapterModule));
  if (pAdapterModule != nullptr) {
    GuardedHook([] { pAdapterModule->OnUnload(); });
    delete pAdapterModule;
    pAdapterModule = nullptr;
  }
  QX_TRACE(1, "\n\n*** KRX Provider library unload ***\n");
}
