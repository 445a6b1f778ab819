// Runs the sender of this host until a signal ends it.
#include "tools/qxrelay/cli/SendCommand.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "reportfile/tools/DurableFiles.h"
#include "tools/qxctl/cli/program/ServiceSignals.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/cli/Service.h"
#include "tools/qxrelay/send/Sender.h"
#include "tools/qxrelay/status/FlowPublisher.h"
#include "tools/qxrelay/status/MetricsService.h"
#include "tools/qxrelay/status/SenderFlow.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace qx::relay {

namespace {

using ctl::Context;
using ctl::ExitCode;
using ctl::ServiceSignals;
using ctl::Status;
using ctl::Values;

constexpr TimeMs kStopMs = 5000;     // the longest wait for messages in flight
constexpr TimeMs kWaitMs = 1000;     // the longest sleep
constexpr TimeMs kStatusMs = 10000;  // between two lines for the service manager

constexpr ctl::Parameter kParameters[] = {
    {.name = "--take-over",
     .help = "Continue although another sender was found, for a replaced machine or a lost state directory"},
};

constexpr ctl::Example kExamples[] = {
    {"qxrelay send", "Send the reports of this host until a signal comes"},
    {"qxrelay send --config /tmp/relay.ini --take-over", "Continue for a machine that was replaced"},
};

SenderTimes TimesOf(const RelayConfig& config) {
  const std::chrono::milliseconds age = config.stream.age;
  return {.linger = config.send.linger.count(),
          .poll = config.send.poll.count(),
          .poll_idle = std::max(config.send.poll, config.send.poll_idle).count(),
          .timeout = config.send.timeout.count(),
          .heartbeat = age.count() / 4,
          .batch_bytes = config.send.batch_bytes};
}

// A sender with the objects that it borrows. Its settings are fixed: new settings need a new sender.
class Service {
 public:
  Service(Context& output, const RelayConfig& config, SenderState& state, bool takes_over)
      : stream_(config.stream, HostNameOf(config)),
        random_(std::random_device{}()),
        context_(
            {.stream = stream_,
             .state = state,
             .log = [&output](const std::string& line) { output.output.Problem(line); },
             .random = [this] { return std::uniform_real_distribution<>()(random_); },
             .random_number = [] { return (std::uint64_t{std::random_device{}()} << 32U) | std::random_device{}(); },
             .wall_ms = WallMs,
             .host = HostNameOf(config),
             .directory = ReportsOf(config),
             .stream_settings = config.stream,
             .settings = config.send,
             .times = TimesOf(config),
             .takes_over = takes_over}),
        sender_(context_, SteadyMs(), config.host.labels),
        flow_(HostNameOf(config), ReportsOf(config)),
        metrics_(config.metrics, RulesOf(output, context_.directory), WallMs, context_.log),
        publisher_(
            SenderFlowFile(config), [this] { return Flow(); }, [this](const ServiceFlow& flow) { metrics_.Show(flow); },
            context_.log),
        started_ms_(WallMs()) {}

  // Runs until a signal requests the end or new settings, or until another sender of this host is found.
  void Run(ServiceSignals& signals, ServiceManager& manager) {
    TimeMs status_at = SteadyMs() + kStatusMs;
    for (;;) {
      const TimeMs now = SteadyMs();
      const TimeMs wake = std::min({sender_.Step(now), now + kWaitMs, manager.NextAlive()});
      manager.Alive(now);
      publisher_.Step(now);
      if (now >= status_at) {
        ServiceManager::Status(StatusText());
        status_at = now + kStatusMs;
      }
      WaitForEither(stream_.Descriptor(), signals.Descriptor(), wake - SteadyMs());
      signals.Take();
      if (signals.IsStopRequested() || signals.TakeReload() || !RivalText().empty()) return;
    }
  }

  // Waits for the messages in flight, and saves the positions.
  void Finish(ServiceSignals& signals, ServiceManager& manager) {
    sender_.BeginStop();
    const TimeMs end = SteadyMs() + kStopMs;
    for (TimeMs now = SteadyMs(); sender_.IsBusy() && now < end; now = SteadyMs()) {
      manager.Alive(now);
      WaitForEither(stream_.Descriptor(), signals.Descriptor(), std::min<TimeMs>(end - now, 100));
      (void)sender_.Step(SteadyMs());
    }
    sender_.Finish();
    publisher_.Finish();
  }

  [[nodiscard]] std::string RivalText() const { return sender_.RivalText(); }
  [[nodiscard]] std::string StatusText() const {
    const SenderCounters& counters = context_.counters;
    return std::to_string(sender_.Reports()) + " reports, " + std::to_string(counters.records) + " records sent, " +
           std::to_string(counters.gap_records) + " lost" + (sender_.IsConnected() ? "" : ", not connected") +
           (sender_.Stopped() > 0 ? ", " + std::to_string(sender_.Stopped()) + " stopped" : "");
  }

 private:
  static MetricsRules RulesOf(const Context& context, const std::string& directory) {
    MetricsRules rules;
    rules.version = context.version;
    rules.path_of = [directory](const ReportFlow& flow) { return report::PathIn(directory, flow.report); };
    return rules;
  }

  // Before the place of a report is found, its last known position is the one in the state directory.
  [[nodiscard]] ServiceFlow Flow() {
    std::vector<SentReport> sent = sender_.Sent();
    for (SentReport& report : sent) {
      const ReportState* const state = report.is_placed ? nullptr : context_.state.Find(report.report);
      if (state == nullptr) continue;
      report.is_placed = true;
      report.next = state->mark.next;
    }
    return {.kind = ServiceKind::kSender,
            .name = context_.host,
            .time_ms = WallMs(),
            .started_ms = started_ms_,
            .is_connected = sender_.IsConnected(),
            .problem = sender_.Problem(),
            .findings = sender_.Findings(),
            .counters = CountersOf(context_.counters),
            .reports = flow_.Take(sent, SteadyMs(), WallMs())};
  }

  NatsPublish stream_;
  std::mt19937_64 random_;
  SendContext context_;
  Sender sender_;
  SenderFlow flow_;
  MetricsService metrics_;
  FlowPublisher publisher_;
  std::int64_t started_ms_;
};

Status CheckSettings(const RelayConfig& config) {
  if (!HostNameOf(config).empty()) return {};
  return {ExitCode::kFinding, TextOfMachineName(kHostNameAllowed, "host")};
}

// Reads the settings again. Settings with findings do not replace the old ones.
void Reload(Context& context, const Values& values, RelayConfig& config) {
  ServiceManager::Reloading();
  RelayConfig changed;
  if (LoadConfig(context, values, changed).IsOk() && CheckSettings(changed).IsOk()) {
    changed.send.spread = std::chrono::milliseconds(0);  // the operator reloads one host, not all at once
    config = changed;
    context.output.Problem("the settings were read again");
  } else {
    context.output.Problem("the settings in force stay as they are");
  }
}

Status Send(Context& context, const Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  if (Status status = CheckSettings(config); !status.IsOk()) return status;
  ServiceSignals signals;
  ServiceManager manager;
  SenderState state;
  const bool takes_over = values.Flag("--take-over");
  if (const auto problem = state.Open(config.send.state, takes_over)) return {ExitCode::kRefused, *problem};
  if (const auto problem = state.BeginSession(0)) return {ExitCode::kIo, *problem};
  state.WriteInBackground();
  while (!signals.IsStopRequested()) {
    Service service(context, config, state, takes_over);
    ServiceManager::Ready(service.StatusText());
    service.Run(signals, manager);
    if (signals.IsStopRequested()) ServiceManager::Stopping();
    service.Finish(signals, manager);
    context.output.Problem(service.StatusText());
    if (!service.RivalText().empty())
      return {ExitCode::kRefused, "another sender sends for this host: end one of them, or continue with --take-over"};
    if (!signals.IsStopRequested()) Reload(context, values, config);
  }
  return {};
}

}  // namespace

constinit const ctl::Command kSendCommand = {.words = "send",
                                             .help = "Send the reports of this host to the stream",
                                             .group = "Services",
                                             .run = Send,
                                             .parameters = {kParameters, kConfigOptions},
                                             .examples = kExamples,
                                             .program = kProgram};

}  // namespace qx::relay
