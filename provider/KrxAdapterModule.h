// The module object: it makes the replies that the exported functions return to the KRX service.
//
// One object serves all threads. It is created while the library is loaded, reached through pAdapterModule and deleted
// while the library is unloaded. A provider derives from it and adds its own request functions.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "provider/ModuleExports.h"

class CMarkup;
class KrxRequestParams;

namespace qx::provider {
struct KrxAdapterModuleLayout;
}

// The generic operations of a provider module.
//
// Threads: any number of threads may call it at once; its members are written by Init and __stoprequest only.
// Owns: the version texts. Holds no state of a request or a thread.
// Failure: a request's failure reaches the client through SetRequestError; operations may throw std::bad_alloc, which
// the exported functions turn into -1.
class CKrxAdapterModule {
 public:
  CKrxAdapterModule() = default;
  CKrxAdapterModule(const CKrxAdapterModule&) = delete;
  CKrxAdapterModule& operator=(const CKrxAdapterModule&) = delete;

  // Order is interface: the slots of the virtual functions, after the two of the destructor.
  virtual ~CKrxAdapterModule();
  // Called once after Init; the result is ignored. [load/unload]
  virtual bool OnLoad();
  // Called once before the object is deleted. [load/unload]
  virtual void OnUnload();
  // Called when the service announces its stop. [any thread]
  virtual void OnServiceStop();
  // Identifies the module: `out` becomes an element that is named after the module and has its version texts. Returns
  // 0. [any thread]
  virtual int What(KrxRequestParams& params, CMarkup& in, CMarkup& out);
  // Echoes the input: `out` becomes a copy of `in` if `in` is well formed, and is unchanged otherwise. Returns 0. [any
  // thread]
  virtual int Reflect(KrxRequestParams& params, CMarkup& in, CMarkup& out);
  // Frees a reply text of ReplyString or AllocReplyString; null is allowed. [any thread]
  virtual void __free(void* p);
  virtual void __threadbegin();  // [any thread]
  // `userData` is the per-thread state that a provider keeps in the block's element 1; this base class has none. [any
  // thread]
  virtual void __threadend(void* userData);
  // The frame's version, 30400. [any thread]
  virtual int __handle_version();

  // Takes the version texts from the DreQX* variables. If a variable is null, its text is "N/A"; the version is then
  // "0.00.00", and the milestone is empty. `path` is ignored. Always true. [load/unload]
  bool Init(void* path);
  // Marks the service stop and calls OnServiceStop; the module keeps serving. [any thread]
  void __stoprequest();

  // Whether the block is valid. On failure `errorText` and `errorCode` (13) have the reason; otherwise they are
  // unchanged. [any thread]
  [[nodiscard]] bool CheckRequestParams(KrxRequestParams& params, std::string& errorText, unsigned& errorCode);
  // Replaces the content of `out` by <Error Msg="message" LastError="code"/>, without LastError when `code` is 0. A
  // null message counts as empty. [any thread]
  void SetRequestError(CMarkup& out, const char* message, unsigned code);

  // A copy of `text` for the service, to be freed with __free; null for null and when memory is short.
  // [any thread]
  [[nodiscard]] static char* ReplyString(const char* text);
  // The same for a string. Its length is known, and so need not be searched for in a megabyte of text. [any thread]
  [[nodiscard]] static char* ReplyString(const std::string& text);
  // Space for a reply of `size` bytes, to be freed with __free; null when memory is short. [any thread]
  [[nodiscard]] static void* AllocReplyString(std::size_t size);
  static void FreeReplyString(void* p);  // [any thread]

 private:
  friend struct qx::provider::KrxAdapterModuleLayout;

  void TakeVersionTexts();
  void TraceVersionTexts() const;

  // Order is interface: other code of the suite embeds this layout.
  std::string module_name_;
  std::string file_version_;
  std::string company_;
  std::string build_date_;
  std::string milestone_;
  std::atomic<bool> stop_requested_{false};  // one byte; written by whichever thread announces the stop
};
