// The module object of this provider: it has the generic operations of every provider, and the two report functions.
#pragma once

#include "provider/KrxAdapterModule.h"

class CThreadData;

// Returns the reports of this machine to remote clients.
//
// Threads: one object serves all service threads at once and holds no state of its own; a transfer keeps its state
// between calls in the CThreadData of the service thread, whose address is in the thread's request blocks. Owns:
// nothing beyond its base.
// Failure: an "Error" element in the reply; std::bad_alloc may pass through.
class CFileTransferProvider : public CKrxAdapterModule {
 public:
  CFileTransferProvider() = default;
  ~CFileTransferProvider() override;

  // Frees the thread data that `userData` (a CThreadData*, or null) points to, with the open report in it. The data
  // must not be in use any more. [any thread]
  void __threadend(void* userData) override;

  // Adds a chunk of a report's records to `out`, or replaces `out` by an error document (docs/documents.md). Returns 0:
  // records; 1: no (more) records; 12: the report could not be read; -1: the block is not valid. After a refusal (`in`
  // has no "ReportData", or the caller lacks the privilege) the call continues. Records are then a second root after
  // the "Error" element of the refusal. [any thread]
  [[nodiscard]] int GetReports(KrxRequestParams& params, CMarkup& in, CMarkup& out);

  // Adds the list of a report's instance names to `out`, or replaces `out` by an error document. Returns 0: the list;
  // 12: no names file; -1: the block is not valid. For a names file of another version, it adds nothing and returns 0.
  // After a refusal the call continues as in GetReports. [any thread]
  [[nodiscard]] int GetReportInstanceNames(KrxRequestParams& params, CMarkup& in, CMarkup& out);

  // The calling thread's data: what the block's element 1 points to, or a new object stored there. Null when memory is
  // short. If the block has no such element (GetProviderSpecificData does not return the result), the caller must
  // delete the new object. [any thread]
  [[nodiscard]] CThreadData* GetOrAllocateThreadData(KrxRequestParams& params);

  // Whether a report function may continue: 0 yes, -1 no (no thread data, or an invalid block), 12 the input has no
  // element `requiredTag`, 401 the caller lacks `requiredPrivilege`. With every result but 0, `out` has an "Error"
  // element. If `requiredTag` is null, no element is required; the same holds for `requiredPrivilege`. The privilege is
  // required only if the block has security validation data. With result 0 the required element is the input's current
  // one. Input that is not well formed passes as an empty document, without a check of the privilege; every attribute
  // read from it is empty. `threadData` is set in every case, as by GetOrAllocateThreadData. [any thread]
  [[nodiscard]] int CheckRequest(KrxRequestParams& params, CMarkup& in, CMarkup& out, CThreadData*& threadData,
                                 const char* requiredTag, const char* requiredPrivilege);

 private:
  [[nodiscard]] int CheckDocument(CMarkup& in, CMarkup& out, const char* required_tag);
  [[nodiscard]] int CheckPrivilege(KrxRequestParams& params, CMarkup& out, const char* required_privilege);
  int Refuse(CMarkup& out, const char* text, unsigned code, int result);
};
