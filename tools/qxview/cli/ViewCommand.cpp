// Serves the pages until a signal ends it.
#include "tools/qxview/cli/ViewCommand.h"

#include <poll.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/program/ServiceSignals.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/trace/TracePlace.h"
#include "tools/qxview/api/Site.h"
#include "tools/qxview/http/HttpServer.h"
#include "tools/qxview/http/Listener.h"
#include "tools/qxview/session/Key.h"

namespace qx::view {

namespace {

using ctl::Context;
using ctl::ExitCode;
using ctl::ServiceSignals;
using ctl::Status;
using ctl::Values;

constexpr std::string_view kListenDefault = "127.0.0.1:8070";
constexpr int kTickMs = 500;
constexpr rlim_t kFilesMin = 4096;  // connections and reports

struct Options {
  std::string listen;
  std::string socket;
  std::string state;
  SiteSettings site;
};

// The directory of the key: the one that the service manager made, or one below the user's home.
std::string StateDirectory(const Values& values) {
  if (values.Has("--state")) return values.Text("--state");
  const auto text_of = [](const char* name) {
    const char* const value = std::getenv(name);
    return std::string(value != nullptr ? value : "");
  };
  const std::string managed = text_of("STATE_DIRECTORY");
  if (!managed.empty()) return managed.substr(0, managed.find(':'));
  const std::string state_home = text_of("XDG_STATE_HOME");
  return (state_home.empty() ? text_of("HOME") + "/.local/state" : state_home) + "/qxview";
}

Status FindDirectory(const Values& values, std::string& directory) {
  directory = values.Text("--reports");
  if (directory.empty()) {
    if (Status status = ctl::FindReportDirectory(directory); !status.IsOk()) return status;
  }
  std::error_code error;
  if (!std::filesystem::is_directory(directory, error)) {
    return {ExitCode::kNotFound, "there is no directory " + ctl::Visible(directory) + "; --reports names another one"};
  }
  directory = std::filesystem::absolute(directory, error).string();
  return {};
}

Status OptionsOf(const Values& values, Options& options) {
  options.listen = values.Text("--listen", kListenDefault);
  options.socket = values.Text("--socket");
  if (values.Has("--socket") && options.socket.empty()) return {ExitCode::kUsage, "--socket: the path is empty"};
  options.state = StateDirectory(values);
  options.site.trace_directory = values.Text("--traces");
  if (options.site.trace_directory.empty()) options.site.trace_directory = ctl::TraceDirectoryHere();
  options.site.hosts = values.Texts("--host");
  options.site.dygraphs_directory = values.Text("--dygraphs", kDygraphsDirectory);
  if (values.Has("--stale")) {
    options.site.survey.stale_seconds = ctl::ParseDuration(values.Text("--stale")).value_or(0);
  }
  return FindDirectory(values, options.site.survey.directory);
}

// Many connections need many descriptors. If the limit stays too low, some connections are not accepted.
void RaiseFileLimit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::min(std::max(limit.rlim_cur, kFilesMin), limit.rlim_max);
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

class Service {
 public:
  Service(Context& context, const Options& options)
      : context_(context),
        site_(loop_, options.site),
        server_([this](const ExchangePtr& exchange) { site_.Handle(exchange); }) {}

  Status Run(ServiceSignals& signals, Listener listener) {
    address_ = listener.address;
    if (!server_.Start(std::move(listener.socket))) return {ExitCode::kIo, "cannot start the HTTP library"};
    if (Status status = PrintAddress(); !status.IsOk()) return status;
    while (!signals.IsStopRequested()) {
      Wait(signals);
      signals.Take();
      loop_.RunPosted();
      server_.Run();
      site_.Maintain();
      if (!signals.TakeReload()) continue;
      if (Status status = PrintAddress(); !status.IsOk()) return status;
    }
    return {};
  }

 private:
  Status PrintAddress() {
    const std::string token = site_.NewToken();
    if (token.empty()) return {ExitCode::kIo, "the system has no random numbers"};
    const std::string url = "http://" + address_ + "/#token=" + token;
    if (Status status = context_.output.Data(url + "\n"); !status.IsOk()) return status;
    context_.output.Note(
        "qxview: open this address; its token is valid once, for five minutes, and SIGHUP prints a new "
        "one");
    return context_.output.Show();
  }

  void Wait(const ServiceSignals& signals) const {
    pollfd files[] = {
        {server_.Descriptor(), POLLIN, 0}, {loop_.Descriptor(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    (void)poll(files, std::size(files), std::min(server_.TimeoutMs(), kTickMs));  // a failure is a short wait
  }

  Context& context_;
  std::string address_;
  Loop loop_;
  Site site_;
  HttpServer server_;
};

Status RunView(Context& context, const Values& values) {
  Options options;
  if (Status status = OptionsOf(values, options); !status.IsOk()) return status;
  const LoadedKey key = LoadKey(options.state);
  if (!key.problem.empty()) return {ExitCode::kIo, key.problem};
  options.site.key = key.bytes;
  Listener listener = options.socket.empty() ? ListenOnLoopback(options.listen, HttpServer::kBacklog)
                                             : ListenOnPath(options.socket, HttpServer::kBacklog);
  if (!listener.problem.empty()) return {ExitCode::kIo, listener.problem};
  RaiseFileLimit();
  ServiceSignals signals;
  Status status = Service(context, options).Run(signals, std::move(listener));
  if (!options.socket.empty()) (void)file::Remove(options.socket.c_str());  // the next start would replace it
  return status;
}

std::string_view CheckStale(std::string_view text) {
  return ctl::ParseDuration(text) ? "" : "a length of time has a unit, such as 90s, 10m, 2h or 1d";
}

constexpr ctl::Parameter kAnswered[] = {ctl::kVersionOption};

constexpr ctl::Parameter kParameters[] = {
    {.name = "--listen",
     .kind = ctl::ValueKind::kText,
     .value = "ADDRESS:PORT",
     .help = "Serve on this address of the loopback network",
     .default_value = kListenDefault,
     .excludes = {"--socket"}},
    {.name = "--socket",
     .kind = ctl::ValueKind::kFile,
     .value = "PATH",
     .help = "Serve on a Unix socket that only this user may open"},
    {.name = "--reports",
     .kind = ctl::ValueKind::kDirectory,
     .value = "DIR",
     .help = "Report directory, instead of the one that the registry names"},
    {.name = "--traces",
     .kind = ctl::ValueKind::kDirectory,
     .value = "DIR",
     .help = "Trace directory, instead of the one that the trace settings name"},
    {.name = "--stale",
     .kind = ctl::ValueKind::kText,
     .value = "TIME",
     .help = "A report without a new record for this long is silent: 90s, 10m, 2h, 1d",
     .check = CheckStale,
     .default_value = "15m"},
    {.name = "--host",
     .kind = ctl::ValueKind::kText,
     .value = "NAME[:PORT]",
     .help = "A name under which a proxy serves the pages; localhost and loopback addresses are known",
     .is_repeatable = true},
    {.name = "--state",
     .kind = ctl::ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the key that signs sessions (default: STATE_DIRECTORY, else ~/.local/state/qxview)"},
    {.name = "--dygraphs",
     .kind = ctl::ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the charts' library",
     .default_value = kDygraphsDirectory},
};

constexpr ctl::Example kExamples[] = {
    {"qxview", "Serve the reports of this machine to browsers on it"},
    {"qxview --reports /srv/collector/Reports", "Serve what a collector of the relay has received"},
    {"ssh -L 8070:127.0.0.1:8070 host qxview", "Look at the reports of another machine, at the address that it prints"},
};

}  // namespace

constinit const ctl::Command kViewCommand = {.words = "",
                                             .help = "Shows reports, traces and findings in a browser",
                                             .run = RunView,
                                             .parameters = {kAnswered, kParameters},
                                             .examples = kExamples,
                                             .program = "qxview"};

}  // namespace qx::view
