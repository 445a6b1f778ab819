// The explanations of the texts ("Msg") of the Error elements in replies. The texts are those of the sources.
#include "tools/qxctl/doctor/ExplanationTables.h"

namespace qx::ctl {

namespace {

constexpr Explanation kMessages[] = {
    {ExplainedKind::kMessage, "No more records available (no error)",
     "There is no record at the start index or after it, or the next record has 1 MiB or more",
     "The end of every transfer; a report without records", "Nothing at the end of a transfer"},
    {ExplainedKind::kMessage, "Report data for report '%s' could not be read",
     "The report could not be opened or read; LastError says why",
     "No such report in the report directory (2), or no permission to read it (13)",
     "Explain the number, for example with `qxctl explain 13`"},
    {ExplainedKind::kMessage, "Report instance names file not found",
     "The names file of the report could not be opened or read; LastError is always 2",
     "The report has no instances, or the report directory is not the expected one",
     "Nothing, if the report has none; else run `qxctl doctor`"},
    {ExplainedKind::kMessage, "Required security privilege \"%s\" missing - access not granted!",
     "The caller lacks the privilege; LastError is 1313", "The service sent security data without the privilege",
     "Give the user the privilege AccessPerformanceMgr. A service that sends no security data needs none"},
    {ExplainedKind::kMessage, "No valid request data in input XML string (<%s> tag missing)",
     "The request document has another root element than the function expects",
     "A document for another function, or a document that is not well formed", "Correct the client's request"},
    {ExplainedKind::kMessage, "RequestParams structure do not contain a valid krx_gendata structure: %s",
     "The block of the request has another tag than \"KRX\"; the text ends with the received tag",
     "A caller that does not fill the block", "Correct the caller; `qxctl module record` keeps such a call as a file"},
    {ExplainedKind::kMessage, "krx_gendata structure does not have elements", "The block of the request is empty",
     "A caller that does not fill the block", "Correct the caller; `qxctl module record` keeps such a call as a file"},
    {ExplainedKind::kMessage, "krx_gendata thread id is 0", "The block of the request names no thread",
     "A caller that does not fill the block", "Correct the caller; `qxctl module record` keeps such a call as a file"},
};

}  // namespace

std::span<const Explanation> MessageExplanations() { return kMessages; }

}  // namespace qx::ctl
