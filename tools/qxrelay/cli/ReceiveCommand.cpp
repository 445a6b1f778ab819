// Runs the receiver of a collector until a signal ends it.
#include "tools/qxrelay/cli/ReceiveCommand.h"

#include <sys/resource.h>

#include <algorithm>
#include <random>
#include <string>

#include "reportfile/tools/DurableFiles.h"
#include "tools/qxctl/cli/program/ServiceSignals.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/cli/Service.h"
#include "tools/qxrelay/receive/CollectedFiles.h"
#include "tools/qxrelay/receive/CollectorRoot.h"
#include "tools/qxrelay/receive/Receiver.h"
#include "tools/qxrelay/status/FlowPublisher.h"
#include "tools/qxrelay/status/MetricsService.h"
#include "tools/qxrelay/status/ReceiverFlow.h"
#include "tools/qxrelay/stream/NatsConsume.h"

namespace qx::relay {

namespace {

using ctl::Context;
using ctl::ExitCode;
using ctl::ServiceSignals;
using ctl::Status;
using ctl::Values;

constexpr TimeMs kWaitMs = 100;      // the longest wait for messages; signals are noticed after it
constexpr TimeMs kStatusMs = 10000;  // between two lines for the service manager
constexpr std::size_t kOtherDescriptors = 64;

constexpr ctl::Limits kSlotLimits = {1, kSlotsMax};

constexpr ctl::Parameter kParameters[] = {
    {.name = "--name", .kind = ctl::ValueKind::kText, .value = "NAME", .help = "The collector's name in the stream"},
    {.name = "--root",
     .kind = ctl::ValueKind::kDirectory,
     .value = "DIR",
     .help = "Write the reports below this directory"},
    {.name = "--slots",
     .kind = ctl::ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Records that the ring of a new report keeps",
     .limits = kSlotLimits},
};

constexpr ctl::Example kExamples[] = {
    {"qxrelay receive", "Write the reports of all hosts until a signal comes"},
    {"qxrelay receive --name second --root /srv/copy", "Keep a second full copy of them"},
};

// The number of reports that may have open files.
std::size_t OpenMax() {
  rlimit limit = {};
  constexpr std::size_t kAny = 10'000;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kAny;
  const auto descriptors = static_cast<std::size_t>(limit.rlim_cur);
  const std::size_t free = descriptors > kOtherDescriptors ? descriptors - kOtherDescriptors : 0;
  return std::clamp(free / CollectedFiles::kDescriptors, std::size_t{1}, kAny);
}

// A receiver with the objects that it borrows. Its settings are fixed: new settings need a new receiver.
class Service {
 public:
  Service(Context& output, const RelayConfig& config, CollectorRoot& root)
      : stream_(config.stream),
        random_(std::random_device{}()),
        context_({.stream = stream_,
                  .root = root,
                  .log = [&output](const std::string& line) { output.output.Problem(line); },
                  .random = [this] { return std::uniform_real_distribution<>()(random_); },
                  .stream_settings = config.stream,
                  .settings = config.receive,
                  .open_max = OpenMax()}),
        receiver_(context_, CollectorName(config)),
        name_(CollectorName(config)),
        metrics_(config.metrics, RulesOf(output, config.receive.root), WallMs, context_.log),
        publisher_(
            ReceiverFlowFile(config), [this] { return Flow(); },
            [this](const ServiceFlow& flow) { metrics_.Show(flow); }, context_.log),
        started_ms_(WallMs()) {}

  // Runs until a signal requests the end or new settings.
  void Run(ServiceSignals& signals, ServiceManager& manager) {
    TimeMs status_at = SteadyMs() + kStatusMs;
    for (;;) {
      const TimeMs now = SteadyMs();
      const TimeMs next = receiver_.Step(now, kWaitMs);
      manager.Alive(SteadyMs());
      publisher_.Step(now);
      if (now >= status_at) {
        ServiceManager::Status(StatusText());
        status_at = now + kStatusMs;
      }
      WaitForEither(signals.Descriptor(), -1, std::min(next - SteadyMs(), kWaitMs));
      signals.Take();
      if (signals.IsStopRequested() || signals.TakeReload()) return;
    }
  }

  void Finish() {
    receiver_.Finish(SteadyMs());
    publisher_.Finish();
  }

  [[nodiscard]] std::string StatusText() const {
    const ReceiverCounters& counters = context_.counters;
    std::uint64_t records = 0;
    std::uint64_t lost = 0;
    std::uint64_t troubled = 0;
    const std::vector<CollectedReport> reports = receiver_.Reports();
    for (const CollectedReport& report : reports) {
      records += report.counters.records;
      lost += report.counters.gap_records;
      troubled += report.state == CollectedState::kLeftAlone ? 1 : 0;
    }
    return std::to_string(reports.size()) + " reports, " + std::to_string(records) + " records written, " +
           std::to_string(lost) + " lost, " + std::to_string(counters.refused) + " messages refused" +
           (receiver_.IsConnected() ? "" : ", not connected") +
           (troubled > 0 ? ", " + std::to_string(troubled) + " reports left alone" : "");
  }

 private:
  static MetricsRules RulesOf(const Context& context, const std::string& root) {
    MetricsRules rules;
    rules.version = context.version;
    rules.path_of = [root](const ReportFlow& flow) { return report::PathIn(root + "/" + flow.host, flow.report); };
    return rules;
  }

  [[nodiscard]] ServiceFlow Flow() {
    const std::vector<CollectedReport> reports = receiver_.Reports();
    return {.kind = ServiceKind::kReceiver,
            .name = name_,
            .time_ms = WallMs(),
            .started_ms = started_ms_,
            .is_connected = receiver_.IsConnected(),
            .problem = receiver_.Problem(),
            .findings = receiver_.Findings(),
            .counters = CountersOf(receiver_.Counters(), reports),
            .reports = flow_.Take(reports, SteadyMs(), WallMs())};
  }

  NatsConsume stream_;
  std::mt19937_64 random_;
  ReceiveContext context_;
  Receiver receiver_;
  std::string name_;
  ReceiverFlow flow_;
  MetricsService metrics_;
  FlowPublisher publisher_;
  std::int64_t started_ms_;
};

// The settings of the file, changed by the options of the command line.
Status LoadSettings(Context& context, const Values& values, RelayConfig& config) {
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  config.receive.name = values.Text("--name", config.receive.name);
  config.receive.root = values.Text("--root", config.receive.root);
  config.receive.slots = static_cast<std::uint32_t>(values.Integer("--slots", config.receive.slots));
  if (IsStreamName(CollectorName(config))) return {};
  if (!config.receive.name.empty()) {
    return {ExitCode::kUsage, "--name: \"" + config.receive.name + "\" " + std::string(kCollectorNameAllowed)};
  }
  return {ExitCode::kFinding, TextOfMachineName(kCollectorNameAllowed, "receive")};
}

// Reads the settings again. Settings with findings do not replace the old ones. A new root is not used, because the
// lock of the old root is held.
void Reload(Context& context, const Values& values, RelayConfig& config) {
  ServiceManager::Reloading();
  RelayConfig changed;
  const bool is_sound = LoadSettings(context, values, changed).IsOk();
  const bool has_other_root = is_sound && changed.receive.root != config.receive.root;
  if (has_other_root) context.output.Problem("a change of root needs a restart");
  if (is_sound && !has_other_root) {
    config = changed;
    context.output.Problem("the settings were read again");
  } else {
    context.output.Problem("the settings in force stay as they are");
  }
}

Status Receive(Context& context, const Values& values) {
  RelayConfig config;
  if (Status status = LoadSettings(context, values, config); !status.IsOk()) return status;
  ServiceSignals signals;
  ServiceManager manager;
  CollectorRoot root;
  if (const auto problem = root.Open(config.receive.root)) return {ExitCode::kRefused, *problem};
  while (!signals.IsStopRequested()) {
    Service service(context, config, root);
    ServiceManager::Ready(service.StatusText());
    service.Run(signals, manager);
    if (signals.IsStopRequested()) ServiceManager::Stopping();
    service.Finish();
    context.output.Problem(service.StatusText());
    if (!signals.IsStopRequested()) Reload(context, values, config);
  }
  return {};
}

}  // namespace

constinit const ctl::Command kReceiveCommand = {.words = "receive",
                                                .help = "Write the reports of all hosts, from the stream",
                                                .group = "Services",
                                                .run = Receive,
                                                .parameters = {kParameters, kConfigOptions},
                                                .examples = kExamples,
                                                .program = kProgram};

}  // namespace qx::relay
