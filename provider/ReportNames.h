// Serves one GetReportInstanceNames call, from the checked request to the reply document.
//
// A report may have an instance names file next to its store: a profile file that numbers and names the instances that
// the report has records of (its disks, its processors). A call reads it once and keeps nothing. docs/report-names.md
// describes the file, docs/documents.md the documents.
//
// Not here: who may read (CheckRequest), and what the caller does with a document with two roots.
#pragma once

class CKrxAdapterModule;
class CMarkup;

namespace qx::provider {

// Serves the request in the current element of `in`. Returns 0, with the list after what `out` contained; for a file of
// a version without a list, `out` is unchanged. Returns 12, with an error document in place of what `out` contained, if
// the report has no names file that can be read. std::bad_alloc passes through. [any thread]
[[nodiscard]] int ReplyInstanceNames(CKrxAdapterModule& module, CMarkup& in, CMarkup& out);

}  // namespace qx::provider
