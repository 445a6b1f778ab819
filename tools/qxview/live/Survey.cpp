#include "tools/qxview/live/Survey.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/doctor/DoctorDocument.h"
#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxview/http/Reply.h"
#include "tools/qxview/live/OverviewDocument.h"
#include "tools/qxview/session/Key.h"

namespace qx::view {

namespace {

constexpr std::size_t kRunBytes = 4;
constexpr std::chrono::milliseconds kFresh{500};  // a document that is younger is not made again for a request

// All but the module, which this process does not load: the provider's traces belong to its service.
std::string FindingsText(const SurveySettings& settings) {
  ctl::DoctorPlaces places;
  places.report_directory = settings.directory;
  places.stale_seconds = settings.stale_seconds;
  ctl::DoctorFindings findings;
  ctl::CheckTraces(places, findings);
  ctl::CheckReports(places, findings);
  ctl::CheckRegistry(places, findings);
  ctl::CheckLimits(findings);
  std::stable_sort(
      findings.begin(), findings.end(),
      [](const ctl::DoctorFinding& left, const ctl::DoctorFinding& right) { return left.code < right.code; });
  return ctl::JsonLine(ctl::ToJson(findings, ctl::StatusOf(findings)));
}

}  // namespace

Survey::Survey(SurveySettings settings, Deliver deliver)
    : settings_(std::move(settings)),
      deliver_(std::move(deliver)),
      run_(RandomText(kRunBytes)),
      reports_(settings_.directory, "", {}) {}

std::string Survey::CursorText() const {
  return run_ + "." + std::to_string(overview_.number) + "." + std::to_string(findings_.number);
}

void Survey::RefreshOverview() {
  reports_.Poll(Clock::now());
  OverviewView view = {.directory = settings_.directory,
                       .stale_seconds = settings_.stale_seconds,
                       .time_ms = ctl::NowMs(),
                       .cursor = {}};
  std::string content = OverviewContent(reports_, view);
  const bool is_news = content != overview_.content || Clock::now() - overview_.time >= kRefresh;
  if (is_news) {
    ++overview_.number;
    overview_.time = Clock::now();
  }
  view.cursor = CursorText();
  overview_.content = std::move(content);
  overview_.text = std::make_shared<const std::string>(ctl::JsonLine(OverviewDocument(reports_, view)));
  if (is_news) Send(OverviewEvent());
}

void Survey::RefreshFindings() {
  findings_.time = Clock::now();
  std::string content = FindingsText(settings_);
  if (content == findings_.content) return;
  ++findings_.number;
  findings_.content = content;
  findings_.text = std::make_shared<const std::string>(std::move(content));
  Send(FindingsEvent());
}

void Survey::Refresh() {
  const bool has_findings = findings_.text != nullptr && Clock::now() - findings_.time < kFindingsRound;
  if (!has_findings) RefreshFindings();
  RefreshOverview();
}

HttpReply Survey::Overview() {
  Refresh();
  return ReplyOf(overview_.text);
}

HttpReply Survey::Findings() {
  const bool is_fresh = findings_.text != nullptr && Clock::now() - findings_.time < kFresh;
  if (!is_fresh) RefreshFindings();
  return ReplyOf(findings_.text);
}

LiveEvent Survey::OverviewEvent() const { return {.name = "overview", .cursor = CursorText(), .data = overview_.text}; }

LiveEvent Survey::FindingsEvent() const { return {.name = "findings", .cursor = CursorText(), .data = findings_.text}; }

void Survey::Send(const LiveEvent& event) {
  if (!streams_.empty()) deliver_(streams_, event);
}

std::vector<LiveEvent> Survey::Changes(const std::string& after) {
  Refresh();
  std::vector<LiveEvent> events;
  const bool is_of_this_run = after.starts_with(run_ + ".");
  const bool has_findings = is_of_this_run && after.ends_with("." + std::to_string(findings_.number));
  const bool has_overview = is_of_this_run && after.starts_with(run_ + "." + std::to_string(overview_.number) + ".");
  if (!has_overview) events.push_back(OverviewEvent());
  if (!has_findings) events.push_back(FindingsEvent());
  return events;
}

void Survey::Subscribe(StreamId stream, const std::string& after) {
  for (LiveEvent& event : Changes(after)) deliver_({stream}, std::move(event));
  streams_.push_back(stream);
}

std::optional<std::chrono::milliseconds> Survey::Tick() {
  if (streams_.empty()) return std::nullopt;
  Refresh();
  return kRound;
}

}  // namespace qx::view
