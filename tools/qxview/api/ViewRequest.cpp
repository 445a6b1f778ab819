#include "tools/qxview/api/ViewRequest.h"

#include <utility>

#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxview/api/Parameters.h"
#include "tools/qxview/report/ReportPath.h"

namespace qx::view {

namespace {

// The cursor of a page that connects again: the last event that it got.
std::string AfterText(const HttpRequest& request) {
  return !request.last_event_id.empty() ? request.last_event_id : request.Value("after").value_or("");
}

TraceWatch TraceWatchOf(Parameters& parameters, const Cursors& after) {
  const auto found = after.find("traces");
  return {.wish = TraceWishOf(parameters), .after = found != after.end() ? found->second : ""};
}

ReadView Refused(Failure failure, const std::string& message) {
  return {.view = {}, .failure = ReplyOf(failure, message)};
}

ReadView ReportView(const HttpRequest& request, const std::string& directory) {
  Parameters parameters(request);
  const std::string report = request.Value("report").value_or("");
  const auto base_path = BasePathOf(directory, report);
  if (!base_path.has_value()) {
    return Refused(Failure::kNoSuchReport, "there is no report \"" + ctl::Visible(report) + "\"");
  }
  ReadView read;
  ViewRequest& view = read.view;
  view.after = CursorsOf(AfterText(request), "records");
  view.records = ReportWatch{.report = report,
                             .base_path = *base_path,
                             .filter = parameters.Text("filter"),
                             .after = CursorOf(view.After("records"))};
  view.overview = report;
  if (request.Value("traces").value_or("") == "1") {
    view.traces = TraceWatchOf(parameters, view.after);
    view.traces->wish.filter.clear();  // the parameter filters the records
  }
  if (!parameters.Problem().empty()) read.failure = ReplyOf(Failure::kBadParameter, parameters.Problem());
  return read;
}

ReadView TracesView(const HttpRequest& request) {
  Parameters parameters(request);
  ReadView read;
  read.view.after = CursorsOf(AfterText(request), "traces");
  read.view.traces = TraceWatchOf(parameters, read.view.after);
  if (!parameters.Problem().empty()) read.failure = ReplyOf(Failure::kBadParameter, parameters.Problem());
  return read;
}

}  // namespace

std::string ViewRequest::After(const std::string& name) const {
  const auto found = after.find(name);
  return found != after.end() ? found->second : "";
}

TraceWish TraceWishOf(Parameters& parameters) {
  TraceWish wish;
  const std::string level = parameters.Text("level");
  if (level == "warning") wish.severity = ctl::TraceSeverity::kWarning;
  if (level == "error") wish.severity = ctl::TraceSeverity::kError;
  const bool is_known = level.empty() || wish.severity != ctl::TraceSeverity::kNone;
  if (!is_known) parameters.Refuse("level", "is neither warning nor error");
  wish.filter = parameters.Text("filter");
  return wish;
}

ReadView ViewOf(const HttpRequest& request, const std::string& directory) {
  const std::string name = request.Value("view").value_or("");
  if (name == "report") return ReportView(request, directory);
  if (name == "traces") return TracesView(request);
  ReadView read;
  if (name == "overview") {
    read.view.after = CursorsOf(AfterText(request), "overview");
    read.view.overview = "";
    return read;
  }
  if (name == "health") {
    read.view.after = CursorsOf(AfterText(request), "findings");
    read.view.has_findings = true;
    return read;
  }
  return Refused(Failure::kBadParameter, "the parameter view is overview, report, traces or health");
}

}  // namespace qx::view
