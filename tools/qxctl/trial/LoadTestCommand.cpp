// Shows what the module does under the load of many threads, and whether memory or descriptors are left afterwards.
#include "tools/qxctl/trial/LoadTestCommand.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/trial/LoadTest.h"

namespace qx::ctl {

namespace {

constexpr std::uint64_t kRequestsDefault = 10000;
#ifdef QX_ADDRESS_SANITIZER  // whose allocator uses new memory for each thread and size, and keeps freed memory
constexpr std::uint64_t kGrowthDefault = std::uint64_t{512} * 1024;
#else
constexpr std::uint64_t kGrowthDefault = 4096;
#endif
constexpr std::size_t kBytesPerKilobyte = 1024;
constexpr double kBytesPerMegabyte = 1024.0 * 1024.0;
constexpr double kNanosecondsPerSecond = 1e9;

struct Options {
  CallOptions call;
  LoadPlan plan;
  std::vector<std::string> mix;
  std::uint64_t growth_kilobytes = kGrowthDefault;
};

struct LoadFinding {
  const char* kind;
  std::string text;
};

// All results of a run.
struct LoadReport {
  LoadResult result;
  std::size_t descriptors_before = 0;
  std::size_t descriptors_after = 0;
  bool is_unmapped = false;
  std::vector<LoadFinding> findings;
};

__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

unsigned long long Wide(std::uint64_t number) { return number; }

// --- findings

void CheckGrowth(const char* what, std::size_t start, std::size_t end, const Options& options, LoadReport& report) {
  const std::size_t limit = options.growth_kilobytes * kBytesPerKilobyte;
  if (end <= start || end - start <= limit) return;
  report.findings.push_back(
      {"memory", Text("%s grew by %.1f MiB while the load was steady, %.1f bytes a request; a module that keeps "
                      "nothing stays within %.1f MiB (--growth)",
                      what, static_cast<double>(end - start) / kBytesPerMegabyte,
                      static_cast<double>(end - start) / static_cast<double>(report.result.requests + 1),
                      static_cast<double>(limit) / kBytesPerMegabyte)});
}

void CheckDescriptors(const LoadPlan& plan, LoadReport& report) {
  constexpr std::size_t kFilesOfAReport =
      2;  // open in the middle of a transfer; a thread at its end may have none open
  const LoadResult& result = report.result;
  if (result.descriptors_end > result.descriptors_start + kFilesOfAReport * plan.threads) {
    report.findings.push_back({"descriptors", Text("%zu descriptors were open at the end of the load, %zu at its start",
                                                   result.descriptors_end, result.descriptors_start)});
  } else if (report.descriptors_after > report.descriptors_before) {
    report.findings.push_back(
        {"descriptors", Text("%zu descriptors are open after the unload, %zu were before the load",
                             report.descriptors_after, report.descriptors_before)});
  }
}

void CheckResult(const Options& options, LoadReport& report) {
  const LoadResult& result = report.result;
  if (result.failures > 0) {
    report.findings.push_back({"failures", Text("%llu replies were not as expected", Wide(result.failures))});
  }
  CheckGrowth("the memory in use", result.memory_start.in_use_bytes, result.memory_end.in_use_bytes, options, report);
  CheckGrowth("the resident memory", result.memory_start.resident_bytes, result.memory_end.resident_bytes, options,
              report);
  CheckDescriptors(options.plan, report);
  if (!report.is_unmapped) {
    report.findings.push_back({"unload", "the module is still mapped after dlclose"});
  }
}

Status StatusOf(const LoadReport& report) {
  if (report.findings.empty()) return {};
  std::string text;
  for (const LoadFinding& finding : report.findings) text += (text.empty() ? "" : "; ") + finding.text;
  return {ExitCode::kFinding, text};
}

// --- output

// "812 ns", "4.1 us", "12.7 ms"
std::string TimeText(std::uint64_t nanoseconds) {
  constexpr double kStep = 1000;
  auto number = static_cast<double>(nanoseconds);
  if (number < kStep) return Text("%.0f ns", number);
  if (number < kStep * kStep) return Text("%.1f us", number / kStep);
  if (number < kStep * kStep * kStep) return Text("%.1f ms", number / kStep / kStep);
  return Text("%.1f s", number / kStep / kStep / kStep);
}

std::string HistogramText(const LatencyHistogram& latency) {
  constexpr std::uint64_t kBarWidth = 40;
  std::string text;
  for (const LatencyHistogram::Bucket& bucket : latency.Octaves()) {
    const auto bar = static_cast<std::size_t>(bucket.count * kBarWidth / latency.Count());
    text += Text("  %9s - %9s %12llu  ", TimeText(bucket.from_ns).c_str(), TimeText(bucket.to_ns).c_str(),
                 Wide(bucket.count)) +
            (bucket.count == 0 ? "" : std::string(bar + 1, '#')) + "\n";
  }
  return text;
}

std::string MemoryText(const LoadResult& result) {
  const auto megabytes = [](std::size_t bytes) { return static_cast<double>(bytes) / kBytesPerMegabyte; };
  return Text("memory        resident %.1f MiB at the start, %.1f MiB at the end; in use %.2f MiB, %.2f MiB\n",
              megabytes(result.memory_start.resident_bytes), megabytes(result.memory_end.resident_bytes),
              megabytes(result.memory_start.in_use_bytes), megabytes(result.memory_end.in_use_bytes));
}

std::string PaintedResult(const Output& output, bool is_good, const std::string& text) {
  return output.Paint(is_good ? Style::kGood : Style::kBad, text);
}

std::string ReportText(const Options& options, const LoadReport& report, const Output& output) {
  const LoadResult& result = report.result;
  const double rate = result.seconds > 0 ? static_cast<double>(result.requests) / result.seconds : 0;
  std::string text = Text("requests      %llu in %.2f s by %u threads, after %llu to warm up\n", Wide(result.requests),
                          result.seconds, options.plan.threads, Wide(result.warm_up_requests)) +
                     "failures      " + PaintedResult(output, result.failures == 0, std::to_string(result.failures)) +
                     "\n" + Text("rate          %.1f requests/s\n", rate);
  text += "latency       p50 " + TimeText(result.latency.Percentile(0.5)) + ", p90 " +
          TimeText(result.latency.Percentile(0.9)) + ", p99 " + TimeText(result.latency.Percentile(0.99)) + ", p99.9 " +
          TimeText(result.latency.Percentile(0.999)) + ", max " + TimeText(result.latency.Max()) + "\n";
  text += HistogramText(result.latency) + MemoryText(result);
  text += Text("descriptors   %zu before the load, %zu at the start, %zu at the end, %zu after the unload\n",
               report.descriptors_before, result.descriptors_start, result.descriptors_end, report.descriptors_after);
  const char* const unload = report.is_unmapped ? "the module is unmapped" : "still mapped";
  return text + "unload        " + PaintedResult(output, report.is_unmapped, unload) + "\n";
}

Json LatencyToJson(const LatencyHistogram& latency) {
  const auto seconds = [](std::uint64_t ns) { return static_cast<double>(ns) / kNanosecondsPerSecond; };
  Json json = {{"p50Seconds", seconds(latency.Percentile(0.5))},
               {"p90Seconds", seconds(latency.Percentile(0.9))},
               {"p99Seconds", seconds(latency.Percentile(0.99))},
               {"p999Seconds", seconds(latency.Percentile(0.999))},
               {"maxSeconds", seconds(latency.Max())},
               {"histogram", Json::Array()}};
  for (const LatencyHistogram::Bucket& bucket : latency.Octaves()) {
    json["histogram"].Append(
        {{"fromSeconds", seconds(bucket.from_ns)}, {"toSeconds", seconds(bucket.to_ns)}, {"requests", bucket.count}});
  }
  return json;
}

Json ReportToJson(const Options& options, const LoadReport& report, const Status& status) {
  const LoadResult& result = report.result;
  Json json = {{"threads", options.plan.threads},
               {"requests", result.requests},
               {"warmUpRequests", result.warm_up_requests},
               {"seconds", result.seconds},
               {"requestsPerSecond", result.seconds > 0 ? static_cast<double>(result.requests) / result.seconds : 0},
               {"failures", result.failures},
               {"firstFailures", Json::Array()},
               {"latency", LatencyToJson(result.latency)}};
  for (const std::string& failure : result.first_failures) json["firstFailures"].Append(Visible(failure));
  json["memory"] = {{"residentBytesAtStart", result.memory_start.resident_bytes},
                    {"residentBytesAtEnd", result.memory_end.resident_bytes},
                    {"inUseBytesAtStart", result.memory_start.in_use_bytes},
                    {"inUseBytesAtEnd", result.memory_end.in_use_bytes}};
  json["descriptors"] = {{"beforeLoad", report.descriptors_before},
                         {"atStart", result.descriptors_start},
                         {"atEnd", result.descriptors_end},
                         {"afterUnload", report.descriptors_after}};
  json["unmapped"] = report.is_unmapped;
  json["findings"] = Json::Array();
  for (const LoadFinding& finding : report.findings) {
    json["findings"].Append({{"kind", finding.kind}, {"text", finding.text}});
  }
  json["exitCode"] = static_cast<int>(status.Code());
  return json;
}

Status Show(Context& context, const Values& values, const Options& options, const LoadReport& report) {
  const Status status = StatusOf(report);
  Status shown = ShowResult(
      context, values, [&] { return ReportToJson(options, report, status); },
      [&] { return ReportText(options, report, context.output); }, status);
  if (!values.Flag("--json")) {
    for (const std::string& failure : report.result.first_failures) context.output.Note(Visible(failure));
  }
  return shown;
}

// --- the run

const std::map<std::string, RequestFunction>& MixNames() {
  static const std::map<std::string, RequestFunction> names = {{"what", RequestFunction::kWhat},
                                                               {"reflect", RequestFunction::kReflect},
                                                               {"reports", RequestFunction::kGetReports},
                                                               {"names", RequestFunction::kGetReportInstanceNames}};
  return names;
}

Status CompletePlan(Options& options) {
  LoadPlan& plan = options.plan;
  if (plan.requests == 0 && plan.seconds <= 0) plan.requests = kRequestsDefault;
  const bool has_report = !plan.report.empty();
  if (options.mix.empty()) {
    options.mix = {"what", "reflect"};
    if (has_report) options.mix.insert(options.mix.end(), {"reports", "names"});
  }
  plan.block = options.call.block;
  for (const std::string& name : options.mix) plan.mix.push_back(MixNames().at(name));
  for (const RequestFunction function : plan.mix) {
    const bool needs_report =
        function == RequestFunction::kGetReports || function == RequestFunction::kGetReportInstanceNames;
    if (needs_report && !has_report) return {ExitCode::kUsage, "name a report with --report for reports and names"};
  }
  return {};
}

Status RunUnderLoad(Context& context, const Options& options, LoadReport& report) {
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  const InterruptGuard guard;
  const auto progress = [&](std::uint64_t requests) {
    context.output.Progress(std::to_string(requests) + " requests");
    return InterruptSignal() == 0;
  };
  return RunLoad(*module, options.plan, progress, report.result);
}

Options OptionsOf(const Values& values) {
  Options options;
  options.call = CallOptionsOf(values);
  LoadPlan& plan = options.plan;
  plan.threads = static_cast<unsigned>(values.Integer("--threads", plan.threads));
  plan.requests = static_cast<std::uint64_t>(values.Integer("--requests", 0));
  plan.seconds = values.Number("--duration", 0);
  options.mix = values.Texts("--mix");
  plan.records_a_call = static_cast<std::int32_t>(values.Integer("--records", plan.records_a_call));
  plan.exact = values.Flag("--exact");
  options.growth_kilobytes = static_cast<std::uint64_t>(values.Integer("--growth", kGrowthDefault));
  return options;
}

Status LoadTest(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  if (values.Has("--report")) {
    if (Status status = FindReportName(values.Text("--report"), options.plan.report); !status.IsOk()) return status;
  }
  if (Status status = CompletePlan(options); !status.IsOk()) return status;
  if (Status status = context.traces.ProtectService(); !status.IsOk()) return status;
  LoadReport report;
  report.descriptors_before = OpenDescriptors();
  if (Status status = RunUnderLoad(context, options, report); !status.IsOk()) return status;
  report.descriptors_after = OpenDescriptors();
  report.is_unmapped = !IsMapped(FindModule(options.call.module_path));
  CheckResult(options, report);
  return Show(context, values, options, report);
}

constexpr Limits kThreads = {1, 256};
constexpr std::string_view kMixNames[] = {"what", "reflect", "reports", "names"};

constexpr Parameter kParameters[] = {
    {.name = "--threads",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Worker threads",
     .limits = kThreads,
     .default_value = "4"},
    {.name = "--requests",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Requests of all threads together",
     .limits = kNatural,
     .default_value = "10000"},
    {.name = "--duration",
     .kind = ValueKind::kNumber,
     .value = "SECONDS",
     .help = "Duration of the load in seconds, instead of a number of requests",
     .limits = kAboveZero,
     .excludes = {"--requests"}},
    {.name = "--report",
     .kind = ValueKind::kReportOrStore,
     .value = "REPORT",
     .help = "Report for the requests \"reports\" and \"names\""},
    {.name = "--mix",
     .kind = ValueKind::kText,
     .value = "WORD,...",
     .help = "The requests, in turn: what, reflect, reports, names; a word may be repeated",
     .choices = kMixNames,
     .is_repeatable = true,
     .is_list = true},
    {.name = "--records",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Maximum number of records in a reply",
     .limits = kPositiveInt32,
     .default_value = "100"},
    {.name = "--exact", .help = "Compare all replies byte for byte; during the test nobody may write to the report"},
    {.name = "--growth",
     .kind = ValueKind::kInteger,
     .value = "KIB",
     .help = "KiB by which memory may grow while the load is steady",
     .limits = kNatural,
     .default_value = "4096"},
    {.name = "--json", .help = "Print the figures as JSON"},
};

constexpr Example kLoadTestExamples[] = {
    {"qxctl module load-test --threads 16 --requests 1000000", "Make a million requests from 16 threads"},
    {"qxctl module load-test --report load --exact --duration 60",
     "Transfer a report for a minute and compare every byte"},
};

}  // namespace

constinit const Command kLoadTestCommand = {.words = "module load-test",
                                            .help = "Call the module from many threads and check every reply",
                                            .run = LoadTest,
                                            .parameters = {kParameters, kModuleParameters, kBlockParameters},
                                            .examples = kLoadTestExamples};

}  // namespace qx::ctl
