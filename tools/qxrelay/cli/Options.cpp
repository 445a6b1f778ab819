#include "tools/qxrelay/cli/Options.h"

#include <unistd.h>

#include <climits>

#include "base/File.h"
#include "sdk/Writer.h"
#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/receive/ReceiverCounters.h"

namespace qx::relay {

namespace {

using ctl::ExitCode;
using ctl::Status;

constexpr ctl::Parameter kAnswered[] = {ctl::kVersionOption};

constexpr ctl::Parameter kOptions[] = {
    {.name = "--quiet", .help = "Print no notes; problems are still printed"},
    {.name = "--verbose", .help = "Print more details", .excludes = {"--quiet"}},
};

std::string MachineName() {
  char name[HOST_NAME_MAX + 1] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

}  // namespace

constinit const ctl::Command kQxrelay = {.words = "",
                                         .help = "Carries reports from many hosts to collectors",
                                         .parameters = {kAnswered, kOptions},
                                         .program = kProgram};

Status ApplyOptions(ctl::Context& context, const ctl::Values& values) {
  ctl::Verbosity verbosity = ctl::Verbosity::kNormal;
  if (values.Flag("--quiet")) verbosity = ctl::Verbosity::kQuiet;
  if (values.Flag("--verbose")) verbosity = ctl::Verbosity::kVerbose;
  context.output.Configure(verbosity, ctl::ColorMode::kAuto);
  return {};
}

Status LoadConfig(ctl::Context& context, const ctl::Values& values, RelayConfig& config) {
  const std::string path = values.Text("--config", kConfigFile);
  const ConfigFindings findings = ReadConfig(path, config);
  if (findings.empty()) return {};
  for (const std::string& finding : findings) context.output.Problem(finding);
  return {ExitCode::kFinding, "the settings in " + path + " are wrong; nothing was done"};
}

std::string HostNameOf(const RelayConfig& config) {
  if (!config.host.name.empty()) return config.host.name;
  const std::string name = MachineName();
  return IsHostName(name) ? name : "";
}

std::string TextOfMachineName(std::string_view allowed, std::string_view section) {
  return "the machine's name \"" + MachineName() + "\" " + std::string(allowed) + "; set name in section [" +
         std::string(section) + "]";
}

std::string ReportsOf(const RelayConfig& config) {
  return config.send.reports.empty() ? file::DirectoryOf(ReportPath("any")) : config.send.reports;
}

std::string SenderFlowFile(const RelayConfig& config) { return config.send.state + "/status"; }

std::string ReceiverFlowFile(const RelayConfig& config) {
  return config.receive.root + "/" + std::string(kReceiverDirectory) + "/status";
}

std::string CollectorName(const RelayConfig& config) {
  if (!config.receive.name.empty()) return config.receive.name;
  const std::string name = config.stream.user.empty() ? HostNameOf(config) : config.stream.user;
  return name.substr(0, name.find('.'));
}

}  // namespace qx::relay
