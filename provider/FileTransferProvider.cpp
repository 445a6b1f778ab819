#include "provider/FileTransferProvider.h"

#include <memory>
#include <new>
#include <string>

#include "debug/Debug.h"
#include "markup/Markup.h"
#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"
#include "provider/QXString.h"
#include "provider/ReportNames.h"
#include "provider/ReportTransfer.h"
#include "provider/ThreadData.h"

namespace {

using qx::provider::kPrivilegeMissing;
using qx::provider::kRequestFatal;
using qx::provider::kRequestRefused;

constexpr int kCheckPassed = 0;
constexpr unsigned kErrorInvalidData = 13;
constexpr unsigned kErrorPrivilegeNotHeld = 1313;
constexpr char kReportPrivilege[] = "AccessPerformanceMgr";

static_assert(sizeof(CFileTransferProvider) == sizeof(CKrxAdapterModule), "the module object has no state of its own");

// The thread's data during one call. If the block could not store the pointer to the data, the data is freed when the
// call ends, because no later call could find it.
class ThreadDataOfCall {
 public:
  explicit ThreadDataOfCall(const KrxRequestParams& params) : params_(params) {}
  ~ThreadDataOfCall() {
    if (data != nullptr && params_.GetProviderSpecificData() != data) delete data;
  }
  ThreadDataOfCall(const ThreadDataOfCall&) = delete;
  ThreadDataOfCall& operator=(const ThreadDataOfCall&) = delete;

  CThreadData* data = nullptr;

 private:
  const KrxRequestParams& params_;
};

// Counts the call in the thread's data when the call ends, whatever its result.
class TransferCallCount {
 public:
  explicit TransferCallCount(const ThreadDataOfCall& thread) : thread_(thread) {}
  ~TransferCallCount() {
    if (thread_.data != nullptr) ++thread_.data->state_word;
  }
  TransferCallCount(const TransferCallCount&) = delete;
  TransferCallCount& operator=(const TransferCallCount&) = delete;

 private:
  const ThreadDataOfCall& thread_;
};

// The service should pass the data only on the thread that the data belongs to. A mismatch is only traced.
void TraceKeptThreadData(const CThreadData& data) {
  QX_TRACE(5, "\nWCSP_QX GetThrdData : CThreadData exists for this thread (0x%p) - use its data, saved threadId=%d",
           static_cast<const void*>(&data), static_cast<int>(data.thread_id));
  if (data.thread_id == qx::provider::CurrentThreadLow32()) return;
  QX_TRACE(1,
           "\n\nWCSP_QX GetThrdData : ## FATAL ERROR! Saved thread ID in CThreadData does not match to the current "
           "thread ID!\n");
}

}  // namespace

CFileTransferProvider::~CFileTransferProvider() = default;

void CFileTransferProvider::__threadend(void* userData) {
  QX_TRACE(3, "\nWCSP_QX ThreadEnd   : __treadend() - free thread specific data");
  QX_TRACE(5, "\nWCSP_QX ThreadEnd   :    cleanup user pointer data at %p", userData);
  if (userData == nullptr) {
    QX_TRACE(4, "\nWCSP_QX ThreadEnd   : thread-specific data not available; no cleanup required");
    return;
  }
  QX_TRACE(4, "\nWCSP_QX ThreadEnd   :   deleting CThreadData instance...");
  const std::unique_ptr<CThreadData> data(static_cast<CThreadData*>(userData));
  data->report_file.Close();
  QX_TRACE(4, "\nWCSP_QX ThreadEnd   : thread-specific data deleted");
}

int CFileTransferProvider::GetReports(KrxRequestParams& params, CMarkup& in, CMarkup& out) {
  QX_TRACE(2, "\nWCSP_QX GetReports  : Transfer report data file");
  ThreadDataOfCall thread(params);
  const TransferCallCount count(thread);
  const int result = CheckRequest(params, in, out, thread.data, "ReportData", kReportPrivilege);
  if (result == kRequestFatal) return kRequestFatal;
  return qx::provider::ReportTransfer(*this, *thread.data, out).Run(in);
}

int CFileTransferProvider::GetReportInstanceNames(KrxRequestParams& params, CMarkup& in, CMarkup& out) {
  QX_TRACE(2, "\nWCSP_QX GetInstances: Get report instance names");
  ThreadDataOfCall thread(params);
  const int result = CheckRequest(params, in, out, thread.data, "ReportInstanceNames", kReportPrivilege);
  if (result == kRequestFatal) return kRequestFatal;
  return qx::provider::ReplyInstanceNames(*this, in, out);
}

CThreadData* CFileTransferProvider::GetOrAllocateThreadData(KrxRequestParams& params) {
  auto* const kept = static_cast<CThreadData*>(params.GetProviderSpecificData());
  QX_TRACE(5, "\nWCSP_QX GetThrdData :   pThreadData = 0x%p", static_cast<void*>(kept));
  if (kept != nullptr) {
    TraceKeptThreadData(*kept);
    return kept;
  }

  QX_TRACE(5, "\nWCSP_QX GetThrdData : no thread data allocated yet => alloc CThreadData structure");
  auto* const created = new (std::nothrow) CThreadData;
  if (created == nullptr) {
    QX_TRACE(1,
             "\n\nWCSP_QX GetThrdData : ## FATAL ERROR! Could not allocate CThreadData! Function will be aborted.\n");
    return nullptr;
  }
  params.SetProviderSpecificData(created);
  QX_TRACE(5, "\nWCSP_QX GetThrdData : CThreadData created, pThreadData = 0x%p, threadId=%d",
           static_cast<void*>(created), static_cast<int>(created->thread_id));
  return created;
}

int CFileTransferProvider::CheckRequest(KrxRequestParams& params, CMarkup& in, CMarkup& out, CThreadData*& threadData,
                                        const char* requiredTag, const char* requiredPrivilege) {
  threadData = GetOrAllocateThreadData(params);
  if (threadData == nullptr) return Refuse(out, "", 0, kRequestFatal);

  std::string text;
  unsigned code = 0;
  if (!CheckRequestParams(params, text, code)) return Refuse(out, text.c_str(), code, kRequestFatal);

  // Quirk: input that is not well formed is not an error. The call continues with an empty document, and so with an
  // empty report name.
  if (!in.IsWellFormed()) {
    in.ResetPos();
    return kCheckPassed;
  }
  const int result = CheckDocument(in, out, requiredTag);
  if (result != kCheckPassed || requiredPrivilege == nullptr) return result;
  return CheckPrivilege(params, out, requiredPrivilege);
}

int CFileTransferProvider::CheckDocument(CMarkup& in, CMarkup& out, const char* required_tag) {
  QX_TRACE(4, "\nWCSP_QX GetReports  :   XML input string: \"%s\"", in.GetDoc().c_str());
  if (required_tag == nullptr || in.FindElem(required_tag)) return kCheckPassed;
  CQXString<> text;
  text.Format("No valid request data in input XML string (<%s> tag missing)", required_tag);
  return Refuse(out, text.c_str(), kErrorInvalidData, kRequestRefused);
}

int CFileTransferProvider::CheckPrivilege(KrxRequestParams& params, CMarkup& out, const char* required_privilege) {
  if (!params.IsSecurityDataAvailable()) {
    QX_TRACE(3, "\nWCSP_QX GetReports  :   WS-TRUST security validation data not found - no authorization required");
    return kCheckPassed;
  }
  QX_TRACE(3, "\nWCSP_QX GetReports  : WS-TRUST security validation data found - using authorization");
  if (!params.HasSecurityPrivilege(required_privilege)) {
    CQXString<> text;
    text.Format("Required security privilege \"%s\" missing - access not granted!", required_privilege);
    return Refuse(out, text.c_str(), kErrorPrivilegeNotHeld, kPrivilegeMissing);
  }
  QX_TRACE(3, "\nWCSP_QX GetReports  : Required access privileges available - access granted");
  return kCheckPassed;
}

// Quirk: the trace line begins like those of another module; readers of logs know the line in this form.
int CFileTransferProvider::Refuse(CMarkup& out, const char* text, unsigned code, int result) {
  QX_TRACE(1, "\nWCSP_SCCI Detach    : ## ERROR! %s (0x%02X)", text, code);
  SetRequestError(out, text, code);
  return result;
}
