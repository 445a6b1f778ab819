// Runs the cases of a bad host. Each case runs in its own process, so that a crash is only a finding.
#include "tools/qxctl/trial/FaultsCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/File.h"
#include "provider/ServerControlPaths.h"
#include "reportfile/ReportFileBase.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/ChildRun.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/trial/FaultCases.h"

namespace qx::ctl {

namespace {

const char kDidNotLoad[] = "the module does not load";

struct Options {
  CallOptions call;
  std::vector<std::string> names;
  std::string report;
  double seconds = 20;
  bool list = false;
};

enum class Verdict { kOk, kFinding, kSkipped };

struct FaultResult {
  const FaultCase* fault;
  Verdict verdict;
  std::string outcome;
};

const char* NameOf(Verdict verdict) {
  if (verdict == Verdict::kSkipped) return "skipped";
  return verdict == Verdict::kOk ? "ok" : "finding";
}

std::vector<FaultCase> AllCases() {
  std::vector<FaultCase> cases;
  AddBlockFaults(cases);
  AddSecurityFaults(cases);
  AddDocumentFaults(cases);
  AddOrderFaults(cases);
  return cases;
}

// --- the run

std::string Run(const FaultCase& fault, const Options& options, const std::string& module, const std::string& report) {
  const ChildOutcome child = RunInChild(options.seconds, [&] {
    FaultHost host(module, report);
    host.Load();
    return fault.block != nullptr ? AskBlock(host, *fault.block) : fault.run(host);
  });
  if (child.exit_code == FaultHost::kHostFailed) return kDidNotLoad;
  return child.trouble.empty() ? child.text : child.trouble;
}

FaultResult Try(const FaultCase& fault, const Options& options, const std::string& module, const std::string& report) {
  if (fault.needs_report && report.empty()) {
    return {&fault, Verdict::kSkipped, "no report that can be read; name one with --report"};
  }
  const std::string outcome = Run(fault, options, module, report);
  return {&fault, outcome == fault.expected ? Verdict::kOk : Verdict::kFinding, outcome};
}

// A private working directory, with a report where the module reads it if no registry names another directory.
class FaultPlace {
 public:
  ~FaultPlace() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

  Status Make() {
    const char* const base = std::getenv("TMPDIR");
    std::string name = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qxctl-XXXXXX";
    const bool has_directory = mkdtemp(name.data()) != nullptr;
    const int error_of_directory = errno;
    if (!has_directory) return Status::Io("cannot make a directory " + name, error_of_directory);
    path_ = name;
    CReportFileBase report;
    const bool is_made = file::MakeDirectory((path_ + "/Reports").c_str(), 0777) == 0 &&
                         report.Open((path_ + "/Reports/faults").c_str(), 4) && report.writeLine("a record");
    if (!is_made) return {ExitCode::kIo, "cannot write a report into " + path_};
    const int error_of_change = chdir(path_.c_str()) == 0 ? 0 : errno;
    return error_of_change == 0 ? Status() : Status::Io("cannot enter " + path_, error_of_change);
  }

  // The name of the report, if the module will find it; else empty.
  std::string Report() const {
    std::string directory;
    CServerControlPaths::GetServerControlReportPath(directory);
    std::error_code ignored;
    return std::filesystem::equivalent(directory, path_ + "/Reports", ignored) ? "faults" : "";
  }

 private:
  std::string path_;
};

// --- output

constexpr std::size_t kNameColumn = 9;
constexpr std::size_t kDescriptionColumn = 42;

Style StyleOf(Verdict verdict) {
  if (verdict == Verdict::kOk) return Style::kGood;
  return verdict == Verdict::kFinding ? Style::kBad : Style::kWarning;
}

std::string ToText(const std::vector<FaultResult>& results, const Output& output) {
  std::string text;
  for (const FaultResult& result : results) {
    const std::string verdict = NameOf(result.verdict);
    std::string line(kNameColumn - verdict.size(), ' ');
    line += std::string(result.fault->group) + "/" + result.fault->name;
    line.resize(std::max<std::size_t>(line.size(), kDescriptionColumn - verdict.size()), ' ');
    text += output.Paint(StyleOf(result.verdict), verdict) + line + "  " + result.fault->description + "\n";
    if (result.verdict == Verdict::kFinding) text += "         expected  " + Visible(result.fault->expected) + "\n";
    if (result.verdict != Verdict::kOk) text += "         outcome   " + Visible(result.outcome) + "\n";
  }
  return text;
}

Json ToJson(const std::vector<FaultResult>& results, const Status& status) {
  Json json = {{"cases", Json::Array()}};
  for (const FaultResult& result : results) {
    json["cases"].Append({{"group", result.fault->group},
                          {"name", result.fault->name},
                          {"text", result.fault->description},
                          {"verdict", NameOf(result.verdict)},
                          {"expected", Visible(result.fault->expected)},
                          {"outcome", Visible(result.outcome)}});
  }
  json["exitCode"] = static_cast<int>(status.Code());
  return json;
}

Status StatusOf(const std::vector<FaultResult>& results) {
  const auto is = [&](Verdict verdict) {
    return std::count_if(results.begin(), results.end(),
                         [verdict](const FaultResult& result) { return result.verdict == verdict; });
  };
  if (is(Verdict::kFinding) == 0) return {};
  return {ExitCode::kFinding, std::to_string(is(Verdict::kFinding)) + " of " + std::to_string(results.size()) +
                                  " cases did not have the expected outcome"};
}

// --- the command

bool IsRequested(const Options& options, const FaultCase& fault) {
  if (options.names.empty()) return true;
  return std::any_of(options.names.begin(), options.names.end(), [&](const std::string& name) {
    return name == fault.name || name == fault.group || name == std::string(fault.group) + "/" + fault.name;
  });
}

// Loads the module once in a child. If it cannot be loaded, the operator gets the reason, and no case runs.
Status CheckModule(const Options& options, const std::string& path) {
  const FaultCase loads{"order", "load", "Loads the module", "loaded",
                        [](FaultHost&) { return std::string("loaded"); }};
  if (access(path.c_str(), F_OK) == 0) {
    const std::string outcome = Run(loads, options, path, "");
    if (outcome == loads.expected) return {};
    if (outcome != kDidNotLoad) return {ExitCode::kFinding, "loading and unloading the module: " + outcome};
  }
  std::unique_ptr<ModuleHost> module;  // it cannot be loaded, so this only returns the reason
  if (Status status = ModuleHost::Load(path, module); !status.IsOk()) return status;
  return {ExitCode::kIo, path + " does not export a function that hosts call"};
}

Status TryAll(Context& context, const Options& options, const std::string& module, std::vector<FaultResult>& results,
              const std::vector<FaultCase>& cases) {
  FaultPlace place;
  if (Status status = place.Make(); !status.IsOk()) return status;
  const std::string report = options.report.empty() ? place.Report() : options.report;
  for (const FaultCase& fault : cases) {
    if (InterruptSignal() != 0) return {ExitCode::kIo, "interrupted"};
    if (!IsRequested(options, fault)) continue;
    context.output.Progress(std::string(fault.group) + "/" + fault.name);
    results.push_back(Try(fault, options, module, report));
  }
  const int error = chdir("/") == 0 ? 0 : errno;
  return error == 0 ? Status() : Status::Io("cannot leave the working directory", error);
}

Status List(Context& context, const std::vector<FaultCase>& cases) {
  std::string text;
  for (const FaultCase& fault : cases)
    text += std::string(fault.group) + "/" + fault.name + ": " + fault.description + "\n";
  return context.output.Data(text);
}

Options OptionsOf(const Values& values) {
  Options options;
  options.call.module_path = values.Text("--module");
  options.names = values.Texts("CASE");
  options.seconds = values.Number("--timeout", options.seconds);
  options.list = values.Flag("--list");
  return options;
}

Status Faults(Context& context, const Values& values) {
  const InterruptGuard guard;  // the children write into the private directories, which are removed later
  Options options = OptionsOf(values);
  if (values.Has("--report")) {
    if (Status status = FindReportName(values.Text("--report"), options.report); !status.IsOk()) return status;
  }
  const std::vector<FaultCase> cases = AllCases();
  if (options.list) return List(context, cases);
  const auto is_asked = [&](const FaultCase& fault) { return IsRequested(options, fault); };
  if (std::none_of(cases.begin(), cases.end(), is_asked))
    return {ExitCode::kUsage, "there is no such case; --list shows the cases"};
  if (Status status = context.traces.ProtectService(); !status.IsOk()) return status;
  (void)setenv("QX_LOG_DEBUG_LEVEL", "6", 1);  // into the private directory: the traces read the whole block
  std::error_code error;
  const std::string module = std::filesystem::absolute(FindModule(options.call.module_path), error).string();
  if (Status status = CheckModule(options, module); !status.IsOk()) return status;
  std::vector<FaultResult> results;
  if (Status status = TryAll(context, options, module, results, cases); !status.IsOk()) return status;
  const Status status = StatusOf(results);
  return ShowResult(
      context, values, [&] { return ToJson(results, status); }, [&] { return ToText(results, context.output); },
      status);
}

std::vector<Offer> Cases(const Context&, const OfferRequest&) {
  std::vector<Offer> offers;
  std::string group;
  for (const FaultCase& fault : AllCases()) {
    if (group != fault.group) offers.push_back({fault.group, "All cases of this group"});
    group = fault.group;
    offers.push_back({group + "/" + fault.name, fault.description});
  }
  return offers;
}

constexpr Parameter kParameters[] = {
    {.name = "CASE",
     .kind = ValueKind::kFault,
     .help = "Cases or groups of cases (default: all)",
     .is_repeatable = true},
    {.name = "--report",
     .kind = ValueKind::kReportOrStore,
     .value = "REPORT",
     .help = "A readable report; required if the registry names the report directory"},
    {.name = "--timeout",
     .kind = ValueKind::kNumber,
     .value = "SECONDS",
     .help = "Seconds that a case may take",
     .limits = kAboveZero,
     .default_value = "20"},
    {.name = "--list", .help = "Print the cases and run none"},
    {.name = "--json", .help = "Print the outcomes as JSON"},
};

constexpr Example kFaultsExamples[] = {
    {"qxctl module faults", "Try all cases"},
    {"qxctl module faults block order/version", "Try a group of cases and a single case"},
};

}  // namespace

constinit const OfferSource kFaultOffers = {"faults", Cases};

constinit const Command kFaultsCommand = {
    .words = "module faults",
    .help = "Call the module as a faulty host would, each case in a child process",
    .run = Faults,
    .parameters = {kParameters, kModuleParameters},
    .examples = kFaultsExamples};

}  // namespace qx::ctl
