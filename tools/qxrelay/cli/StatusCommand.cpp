// Shows the state of the sender and the receiver of this machine: the records that wait, how long it takes until the
// rings overwrite them, and the lost records.
#include "tools/qxrelay/cli/StatusCommand.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "base/File.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Table.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/cli/Service.h"
#include "tools/qxrelay/status/FlowDocument.h"
#include "tools/qxrelay/status/FlowPublisher.h"
#include "tools/qxrelay/status/StoppedSender.h"
#include "tools/qxrelay/stream/NatsAdmin.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace qx::relay {

namespace {

using ctl::Context;
using ctl::ExitCode;
using ctl::Status;
using ctl::ValueKind;
using ctl::Values;

constexpr std::int64_t kLookUpsMs = 3000;
constexpr std::int64_t kMsInSecond = 1000;
constexpr double kSecondsMax = 100.0 * 365 * 86400;

constexpr ctl::Parameter kParameters[] = {
    {.name = "--host",
     .kind = ValueKind::kText,
     .value = "PATTERN",
     .help = "Only reports of hosts that match, such as \"db*\"",
     .default_value = "*"},
    {.name = "--report",
     .kind = ValueKind::kText,
     .value = "PATTERN",
     .help = "Only reports that match, such as \"disk/*\"",
     .default_value = "*"},
    {.name = "--offline", .help = "Do not connect to the servers, even if a service is not running"},
    {.name = "--json", .help = "Print one JSON document"},
};

constexpr ctl::Example kExamples[] = {
    {"qxrelay status", "Show the records that wait in the rings, and how long the rings last"},
    {"qxrelay status --report \"disk/*\" --json", "Show some reports, for a script"},
};

using Services = std::vector<ServiceFlow>;

bool IsRunning(const ServiceFlow& flow) {
  const std::int64_t age = WallMs() - flow.time_ms;
  return flow.started_ms != 0 && age < FlowPublisher::kFreshMs && age > -FlowPublisher::kFreshMs;
}

ServiceFlow FlowOfStoppedSender(const RelayConfig& config, std::optional<ServiceFlow> last, bool is_offline) {
  StoppedSender sender = {.host = HostNameOf(config),
                          .directory = ReportsOf(config),
                          .settings = config.send,
                          .states = ReadStates(config.send.state),
                          .newest = {},
                          .last = std::move(last)};
  if (!is_offline) {
    NatsPublish stream(config.stream, sender.host);
    if (!stream.Connect().has_value()) {
      sender.newest = NewestMessages(stream, config.stream.prefix, sender.host, sender.Reports(), kLookUpsMs);
    }
  }
  return sender.Flow(SteadyMs(), WallMs());
}

// Sets the figures of a receiver that is not running. Only the stream knows how many messages wait for it.
void MarkAsStopped(const RelayConfig& config, bool is_offline, ServiceFlow& flow) {
  flow.started_ms = 0;
  flow.is_connected = false;
  flow.problem = "the receiver is not running";
  std::uint64_t pending = 0;
  if (is_offline || ReadPending(config.stream, flow.name, pending).has_value()) return;
  flow.problem += "; messages that wait for it in the stream: " + std::to_string(pending);
  for (auto& [name, value] : flow.counters) {
    if (name == "pending") value = pending;
  }
}

Services ServicesOf(const RelayConfig& config, bool is_offline) {
  Services services;
  struct stat status = {};
  if (file::StatusOf((config.send.state + "/identity").c_str(), status) == 0) {
    std::optional<ServiceFlow> flow = ReadFlowFile(SenderFlowFile(config));
    const bool is_running = flow.has_value() && IsRunning(*flow);
    services.push_back(is_running ? *flow : FlowOfStoppedSender(config, std::move(flow), is_offline));
  }
  if (std::optional<ServiceFlow> flow = ReadFlowFile(ReceiverFlowFile(config))) {
    if (!IsRunning(*flow)) MarkAsStopped(config, is_offline, *flow);
    services.push_back(*std::move(flow));
  }
  return services;
}

void Select(const Values& values, Services& services) {
  const std::string host = values.Text("--host", "*");
  const std::string report = values.Text("--report", "*");
  for (ServiceFlow& service : services) {
    std::erase_if(service.reports, [&](const ReportFlow& flow) {
      return !MatchesPattern(host, flow.host) || !MatchesPattern(report, flow.report);
    });
  }
}

bool HasTrouble(const ServiceFlow& service) {
  return !service.problem.empty() || !service.is_connected || !service.findings.empty() ||
         std::any_of(service.reports.begin(), service.reports.end(),
                     [](const ReportFlow& flow) { return !flow.trouble.empty(); });
}

std::string NumberText(const std::optional<std::uint64_t>& number) {
  return number.has_value() ? std::to_string(*number) : "-";
}

// 0.25 => "0.25/s", 12.3 => "12.3/s", 5400 => "5400/s"
std::string RateText(const std::optional<double>& rate) {
  if (!rate.has_value()) return "-";
  char text[32];
  const int digits = *rate == 0 || *rate >= 100 ? 0 : (*rate >= 1 ? 1 : 2);
  std::snprintf(text, sizeof text, "%.*f/s", digits, *rate);
  return text;
}

std::string SecondsText(const std::optional<double>& seconds) {
  if (!seconds.has_value()) return "-";
  return ctl::DurationText(static_cast<std::int64_t>(std::floor(std::min(*seconds, kSecondsMax))));
}

ctl::TableRow RowOf(const ReportFlow& flow) {
  const std::optional<double> lag_s =
      flow.lag_ms.has_value() ? std::optional(static_cast<double>(*flow.lag_ms) / kMsInSecond) : std::nullopt;
  return {ctl::Visible(flow.host),      ctl::Visible(flow.report),        NumberText(flow.lag_records),
          SecondsText(lag_s),           SecondsText(flow.overtaken_in_s), RateText(flow.records_per_second),
          std::to_string(flow.records), std::to_string(flow.gap_records), std::to_string(flow.holes),
          std::to_string(flow.repeats), ctl::Visible(flow.trouble)};
}

// "sender host3: connected, running for 2 h, 12 reports"
std::string SummaryOf(const ServiceFlow& service) {
  std::string text = std::string(NameOf(service.kind)) + " " + ctl::Visible(service.name) + ": ";
  text += service.is_connected ? "connected" : "not connected";
  if (service.started_ms != 0) {
    text += ", running for " + ctl::DurationText((service.time_ms - service.started_ms) / kMsInSecond);
  }
  text += ", " + std::to_string(service.reports.size()) + (service.reports.size() == 1 ? " report\n" : " reports\n");
  if (!service.problem.empty()) text += ctl::Visible(service.problem) + "\n";
  for (const std::string& finding : service.findings) text += ctl::Visible(finding) + "\n";
  return text;
}

std::string TextOf(const Services& services) {
  constexpr std::size_t kTextColumns = 2;
  std::string text;
  for (const ServiceFlow& service : services) {
    std::vector<ctl::TableRow> rows = {
        {"host", "report", "lag", "oldest", "ring lasts", "rate", "records", "lost", "holes", "repeats", ""}};
    for (const ReportFlow& flow : service.reports) rows.push_back(RowOf(flow));
    text += (text.empty() ? "" : "\n") + SummaryOf(service) + ctl::TableText(rows, {.left = kTextColumns});
  }
  return text;
}

ctl::Json DocumentOf(const Services& services, ExitCode code) {
  ctl::Json document;
  document["services"] = ctl::Json::Array();
  for (const ServiceFlow& service : services) document["services"].Append(DocumentOf(service));
  document["exitCode"] = static_cast<int>(code);
  return document;
}

Status Show(Context& context, const Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  Services services = ServicesOf(config, values.Flag("--offline"));
  if (services.empty()) {
    return {ExitCode::kNotFound, "nothing has run with these settings: there is no " + config.send.state +
                                     "/identity and no " + ReceiverFlowFile(config) +
                                     " that this user may see; start a service, or check as its user"};
  }
  Select(values, services);
  const bool has_trouble = std::any_of(services.begin(), services.end(), HasTrouble);
  const ExitCode code = has_trouble ? ExitCode::kFinding : ExitCode::kOk;
  return ctl::ShowResult(
      context, values, [&] { return DocumentOf(services, code); }, [&] { return TextOf(services); }, {code, ""});
}

}  // namespace

constinit const ctl::Command kStatusCommand = {.words = "status",
                                               .help = "Show the records that wait in the rings, and the lost ones",
                                               .group = "Services",
                                               .run = Show,
                                               .parameters = {kParameters, kConfigOptions},
                                               .examples = kExamples,
                                               .program = kProgram};

}  // namespace qx::relay
