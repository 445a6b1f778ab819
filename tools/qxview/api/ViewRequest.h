// The view that a page requests from its event stream.
//
//   view=overview                                    the overview
//   view=health                                      doctor's findings
//   view=report&report=R[&filter=T][&traces=1...]    new records, the report's row of the overview, and trace entries
//   view=traces[&level=L][&filter=T]                 trace entries
#pragma once

#include <optional>
#include <string>

#include "tools/qxview/api/Failure.h"
#include "tools/qxview/http/HttpRequest.h"
#include "tools/qxview/live/LiveEvent.h"
#include "tools/qxview/live/LiveReports.h"
#include "tools/qxview/live/TraceFeed.h"

namespace qx::view {

struct ViewRequest {
  Cursors after;                        // by the names of events
  std::optional<ReportWatch> records;   // unset: no records
  std::optional<std::string> overview;  // the only report in it; empty: all reports
  bool has_findings = false;
  std::optional<TraceWatch> traces;

  [[nodiscard]] std::string After(const std::string& name) const;
};

// The view, or a failure if the request does not name a view.
struct ReadView {
  ViewRequest view;
  std::optional<HttpReply> failure;
};
[[nodiscard]] ReadView ViewOf(const HttpRequest& request, const std::string& directory);

// Reads the parameters `level` and `filter`. A wrong value becomes a problem of `parameters`.
class Parameters;
[[nodiscard]] TraceWish TraceWishOf(Parameters& parameters);

}  // namespace qx::view
