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
constexpr std::chrono::milliseconds kFresh{500};  // a request gets a document that is not older than this
constexpr std::chrono::seconds kUnused{60};       // a document that nobody follows or requests is dropped

// Makes all checks except that of the module. This process does not load the module, because the module would write
// trace files that belong to the service.
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

// --- documents

std::string Survey::CursorText(const Version& version) const { return run_ + "." + std::to_string(version.number); }

void Survey::PollReports() {
  if (Clock::now() - polled_ < kFresh) return;
  polled_ = Clock::now();
  reports_.Poll(polled_);
}

void Survey::RefreshOverview(const std::string& only, Version& version) {
  const Clock::time_point now = Clock::now();
  OverviewView view = {.directory = settings_.directory,
                       .stale_seconds = settings_.stale_seconds,
                       .time_ms = ctl::NowMs(),
                       .cursor = {},
                       .only = only};
  std::string content = OverviewContent(reports_, view);
  const bool is_news = content != version.content || now - version.changed >= kRefresh;
  if (is_news) {
    version.number = ++numbers_;
    version.changed = now;
  }
  version.made = now;
  version.content = std::move(content);
  view.cursor = CursorText(version);
  version.text = std::make_shared<const std::string>(ctl::JsonLine(OverviewDocument(reports_, view)));
  if (is_news) Send("overview", version);
}

Survey::Version& Survey::OverviewOf(const std::string& only) {
  Version& version = overviews_[only];
  const bool is_fresh = version.text != nullptr && Clock::now() - version.made < kFresh;
  if (is_fresh) return version;
  PollReports();
  RefreshOverview(only, version);
  return version;
}

void Survey::RefreshFindings() {
  findings_.made = Clock::now();
  std::string content = FindingsText(settings_);
  if (content == findings_.content) return;
  findings_.number = ++numbers_;
  findings_.content = content;
  findings_.text = std::make_shared<const std::string>(std::move(content));
  Send("findings", findings_);
}

LiveEvent Survey::EventOf(const char* name, const Version& version) const {
  return {.name = name, .cursor = CursorText(version), .data = version.text};
}

void Survey::Send(const char* name, const Version& version) {
  if (!version.streams.empty()) deliver_(version.streams, EventOf(name, version));
}

// --- requests

HttpReply Survey::Overview(const std::string& only) { return ReplyOf(OverviewOf(only).text); }

HttpReply Survey::Findings() {
  const bool is_fresh = findings_.text != nullptr && Clock::now() - findings_.made < kFresh;
  if (!is_fresh) RefreshFindings();
  return ReplyOf(findings_.text);
}

LiveNews Survey::NewsOf(const char* name, const Version& version, const std::string& after) const {
  LiveNews news = {.name = name, .cursor = CursorText(version), .events = {}};
  if (after != news.cursor) news.events.push_back(EventOf(name, version));
  return news;
}

LiveNews Survey::OverviewChanges(const std::string& only, const std::string& after) {
  return NewsOf("overview", OverviewOf(only), after);
}

LiveNews Survey::FindingsChanges(const std::string& after) {
  const bool is_fresh = findings_.text != nullptr && Clock::now() - findings_.made < kFindingsRound;
  if (!is_fresh) RefreshFindings();
  return NewsOf("findings", findings_, after);
}

// --- followers

void Survey::SubscribeOverview(StreamId stream, const std::string& only, const std::string& after) {
  for (LiveEvent& event : OverviewChanges(only, after).events) deliver_({stream}, std::move(event));
  overviews_[only].streams.push_back(stream);
}

void Survey::SubscribeFindings(StreamId stream, const std::string& after) {
  for (LiveEvent& event : FindingsChanges(after).events) deliver_({stream}, std::move(event));
  findings_.streams.push_back(stream);
}

void Survey::Unsubscribe(StreamId stream) {
  std::erase(findings_.streams, stream);
  for (auto& [only, version] : overviews_) std::erase(version.streams, stream);
}

void Survey::DropUnused() {
  const Clock::time_point now = Clock::now();
  std::erase_if(overviews_,
                [&](const auto& each) { return each.second.streams.empty() && now - each.second.made > kUnused; });
}

std::optional<std::chrono::milliseconds> Survey::Tick() {
  const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - ticked_);
  if (since < kRound) return kRound - since;
  ticked_ = Clock::now();
  DropUnused();
  const bool has_followers =
      std::any_of(overviews_.begin(), overviews_.end(), [](const auto& each) { return !each.second.streams.empty(); });
  if (has_followers) PollReports();
  for (auto& [only, version] : overviews_) {
    if (!version.streams.empty()) RefreshOverview(only, version);
  }
  const bool is_due = Clock::now() - findings_.made >= kFindingsRound;
  if (is_due && !findings_.streams.empty()) RefreshFindings();
  if (has_followers || !findings_.streams.empty()) return kRound;
  return std::nullopt;
}

}  // namespace qx::view
