// The explanations of the codes of qxview: failures of its API, and its own findings. A code never changes its meaning.
#include "tools/qxctl/doctor/ExplanationTables.h"

namespace qx::ctl {

namespace {

constexpr Explanation kCodes[] = {
    {ExplainedKind::kView, "QX601", "The request has no valid session",
     "The page was opened without the printed token, the session is older than 30 days, or the file STATE/key was "
     "removed",
     "Open the address that qxview has printed; SIGHUP makes it print a new one"},
    {ExplainedKind::kView, "QX602", "The token is not valid",
     "It was used already, is older than five minutes, or was not copied as a whole",
     "Send SIGHUP to qxview (systemctl reload qxview), and open the new address"},
    {ExplainedKind::kView, "QX603", "The Host header of the request has a name that qxview does not know",
     "A proxy serves the pages under this name; or a hostile site lets its own name lead to this machine",
     "Name the proxy's name with --host. If there is no proxy, close the page"},
    {ExplainedKind::kView, "QX604", "A page of another site sent the request",
     "This browser shows a page of another site, which sends requests to qxview", "Close that page"},
    {ExplainedKind::kView, "QX605", "There is no such page or document", "A mistyped address",
     "See docs/qxview-api.md"},
    {ExplainedKind::kView, "QX606", "The method is not allowed",
     "The request was neither GET nor HEAD, and not the POST for a session", "Use GET"},
    {ExplainedKind::kView, "QX607", "A parameter of the request is not valid",
     "It is not a number, is out of range, or is given too often", "Read the message, and see docs/qxview-api.md"},
    {ExplainedKind::kView, "QX608", "There is no such report", "It was removed, or no report has this name",
     "Choose a report of the overview"},
    {ExplainedKind::kView, "QX609", "A report cannot be read",
     "The user of qxview has no permission to read it, or its header contradicts itself",
     "Correct the permissions, or check it with `qxctl report verify`"},
    {ExplainedKind::kView, "QX610", "Too many requests wait", "Many pages ask for large reports at once",
     "Ask again later, or close pages"},
    {ExplainedKind::kView, "QX611", "The traces cannot be read",
     "The user of qxview has no permission to read the trace directory or its files",
     "Correct the permissions of the directory that `qxctl trace config` names"},
    {ExplainedKind::kView, "QX621", "The ring of a report wraps in less than ten minutes",
     "It has few slots for the rate of its records, so records are overwritten soon after they were written",
     "Fetch the report more often, or give it more slots"},
};

}  // namespace

std::span<const Explanation> ViewExplanations() { return kCodes; }

}  // namespace qx::ctl
