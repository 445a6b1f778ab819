// One GetReportInstanceNames call, from the checked request to the reply document.
//
// A report may have an instance names file next to its store: a profile file that numbers and names the instances that
// the report has records of (its disks, its processors). A call reads it once and keeps nothing.
// docs/report-names.md has the file, docs/documents.md the documents.
//
// Not here: who may read (CheckRequest), and what the caller does with a document with two roots.
#pragma once

class CKrxAdapterModule;
class CMarkup;

namespace qx::provider {

// Serves the request in the current element of `in`. Returns 0 with the list after whatever `out` contained; a file of
// a version that has no list leaves `out` as it was. Returns 12, with an error document in its place, when the report
// has no names file that can be opened. std::bad_alloc passes through. [any thread]
[[nodiscard]] int ReplyInstanceNames(CKrxAdapterModule& module, CMarkup& in, CMarkup& out);

}  // namespace qx::provider
