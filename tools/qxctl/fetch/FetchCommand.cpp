// Fetches a whole report through the module, and writes it to standard output or into a file.
#include "tools/qxctl/fetch/FetchCommand.h"

#include <malloc.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/OutputFile.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/fetch/RecordPrint.h"
#include "tools/qxctl/fetch/ResumedFetch.h"
#include "tools/qxctl/fetch/Transfer.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/slice/SliceOptions.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportDamage.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;
  std::string report;
  std::string output;  // empty: standard output
  std::string state;   // empty: one run fetches everything
  RecordPrintOptions print;
  Slice slice;
  std::optional<std::int32_t> chunk_records;
  bool json = false;
  bool are_several = false;  // reports
};

constexpr double kMega = 1e6;

double BytesPerSecond(const TransferCount& count) {
  return count.module_seconds > 0 ? static_cast<double>(count.bytes) / count.module_seconds : 0;
}

// "load: 120 records, 1 chunk, 5364 bytes, 0.412 ms in the module, 13.0 MB/s"
std::string SummaryLine(const std::string& report, const TransferCount& count) {
  char numbers[160];
  std::snprintf(numbers, sizeof numbers, ": %llu record%s, %llu chunk%s, %llu bytes, %.3f ms in the module, %.1f MB/s",
                static_cast<unsigned long long>(count.records), count.records == 1 ? "" : "s",
                static_cast<unsigned long long>(count.chunks), count.chunks == 1 ? "" : "s",
                static_cast<unsigned long long>(count.bytes), count.module_seconds * 1000,
                BytesPerSecond(count) / kMega);
  return report + numbers;
}

const char* NameOfOutcome(ExitCode code) {
  switch (code) {
    case ExitCode::kOk:
      return "complete";
    case ExitCode::kFinding:
      return "cut short";
    case ExitCode::kChanged:
      return "changed";
    case ExitCode::kNotFound:
      return "not found";
    case ExitCode::kRefused:
      return "refused";
    case ExitCode::kUsage:
    case ExitCode::kIo:
      break;
  }
  return "failed";
}

Json SummaryToJson(const Options& options, const TransferCount& count, const Status& status) {
  return {{"report", options.report},
          {"output", options.output},
          {"outcome", NameOfOutcome(status.Code())},
          {"message", status.Message()},
          {"records", count.records},
          {"chunks", count.chunks},
          {"bytes", count.bytes},
          {"seconds", count.module_seconds},
          {"bytesPerSecond", BytesPerSecond(count)},
          {"exitCode", static_cast<int>(status.Code())}};
}

// Writes the records of a reply to the file, or to standard output unless a chart is drawn there.
class RecordTarget {
 public:
  RecordTarget(Context& context, const Options& options)
      : output_(context.output),
        options_(options),
        printer_(context.output, options.print),
        records_(options.slice, printer_, [this](const std::string& text) { return WriteRecord(text); }) {}

  Status Open() {
    if (!HasFile()) return {};
    if (options_.print.raw) file_.KeepBytes();
    return file_.Open(options_.output, options_.print.force);
  }

  Status Take(Transfer& transfer, const ReportReply& reply) {
    if (printer_.IsPlain() && options_.slice.IsWhole()) return Write(reply.records);
    std::vector<std::string> records;
    if (Status status = transfer.Split(reply, records); !status.IsOk()) return status;
    for (const std::string& record : records) {
      if (Status status = records_.Add(record); !status.IsOk()) return status;
    }
    return {};
  }

  std::uint64_t InSlice() const { return records_.Count(); }

  // The file gets its name only if the transfer reached the end of the report. This includes a transfer that ends with
  // kChanged or kFinding: its records are better than no file.
  Status Finish(bool reached_end) {
    if (Status status = records_.Finish(); !status.IsOk()) return status;
    if (Status status = printer_.ShowFields(options_.report, options_.are_several); !status.IsOk()) return status;
    if (Status status = printer_.Finish(options_.report); !status.IsOk()) return status;
    return HasFile() && reached_end ? file_.Commit() : Status();
  }

 private:
  bool HasFile() const { return !options_.output.empty(); }
  Status WriteRecord(const std::string& text) {
    return HasFile() || !printer_.ReplacesRecords() ? Write(text) : Status();
  }
  Status Write(std::string_view text) { return HasFile() ? file_.Write(text) : output_.Data(text); }

  Output& output_;
  const Options& options_;
  RecordPrinter printer_;
  SlicedRecords records_;
  OutputFile file_;
};

Status TransferRecords(Context& context, const Options& options, Transfer& transfer, std::uint64_t& in_slice) {
  RecordTarget target(context, options);
  if (Status status = target.Open(); !status.IsOk()) return status;
  Status status = transfer.Run([&](const ReportReply& reply, const TransferCount& so_far) {
    context.output.Progress(SummaryLine(options.report, so_far));
    return target.Take(transfer, reply);
  });
  if (!status.IsOk() && !transfer.ReachedEnd()) return status;
  Status finished = target.Finish(transfer.ReachedEnd());
  in_slice = target.InSlice();
  return finished.IsOk() ? status : finished;
}

// Whether the report was damaged before the transfer began: a warning is already printed, and the status has no
// message. If the transfer was cut short, the status has one.
bool IsDamaged(const Status& status) { return status.Code() == ExitCode::kFinding && status.Message().empty(); }

Status Summarise(Context& context, const Options& options, const TransferCount& count, std::uint64_t in_slice,
                 const Status& status) {
  const bool has_slice = !options.slice.IsWhole();
  if (options.json) {
    Json summary = SummaryToJson(options, count, status);
    if (has_slice) summary["recordsInSlice"] = in_slice;
    if (IsDamaged(status)) summary["outcome"] = "damaged";
    Status printed = context.output.Document(summary);
    return printed.IsOk() ? status : printed;
  }
  const bool has_begun = count.chunks > 0 || status.IsOk();
  const std::string slice = has_slice ? "; " + std::to_string(in_slice) + " in the slice" : "";
  if (has_begun) context.output.Note(SummaryLine(options.report, count) + slice);
  return status;
}

// "load: 3 new records, 51 bytes, 0.412 ms in the module; 123 in all runs"
std::string SummaryLine(const std::string& report, const ResumeResult& result) {
  char numbers[160];
  std::snprintf(numbers, sizeof numbers, ": %llu new record%s, %llu bytes, %.3f ms in the module; %llu in all runs",
                static_cast<unsigned long long>(result.records), result.records == 1 ? "" : "s",
                static_cast<unsigned long long>(result.bytes), result.module_seconds * 1000,
                static_cast<unsigned long long>(result.delivered));
  return report + numbers;
}

Json ResumeToJson(const Options& options, const ResumeResult& result) {
  Json object = {{"state", options.state}, {"delivered", result.delivered}, {"maybeRepeated", result.maybe_repeated}};
  object.Merge(ToJson(result.tally));
  return object;
}

Status FetchResumed(Context& context, const Options& options, WorkerThread& worker, bool is_damaged) {
  ResumeResult result;
  Status status = RunResumedFetch(context,
                                  {options.report, options.state, options.output, options.print.format,
                                   options.chunk_records, options.print.raw, options.print.force},
                                  worker, result);
  status = WithDamage(status, is_damaged);
  if (!options.json) {
    if (result.records > 0 || status.IsOk()) context.output.Note(SummaryLine(options.report, result));
    return status;
  }
  const TransferCount count = {result.records, result.chunks, result.bytes, result.module_seconds};
  const Status reported = status.Message().empty() ? Status(status.Code(), result.message) : status;
  Json summary = SummaryToJson(options, count, reported);
  if (status.Code() == ExitCode::kFinding && status.Message().empty()) {
    summary["outcome"] = is_damaged ? "damaged" : "complete";
  }
  summary["resume"] = ResumeToJson(options, result);
  Status printed = context.output.Document(summary);
  return printed.IsOk() ? status : printed;
}

Options OptionsOf(const Values& values) {
  Options options;
  options.call = CallOptionsOf(values);
  options.output = values.Text("--output");
  if (options.output == "-") options.output.clear();  // as without the option
  options.state = values.Text("--resume");
  options.print = RecordPrintOptionsOf(values);
  if (values.Has("--chunk-records"))
    options.chunk_records = static_cast<std::int32_t>(values.Integer("--chunk-records", 0));
  options.json = values.Flag("--json");
  return options;
}

Status FetchReport(Context& context, const Options& options, const ModuleHost& module) {
  WorkerThread worker(module, options.call.block);
  const bool is_damaged = WarnOfDamage(context.output, BasePathOfReport(options.report));
  if (!options.state.empty()) return FetchResumed(context, options, worker, is_damaged);
  Transfer transfer(worker, options.report, options.chunk_records);
  std::uint64_t in_slice = 0;
  const Status status = WithDamage(TransferRecords(context, options, transfer, in_slice), is_damaged);
  return Summarise(context, options, transfer.Count(), in_slice, status);
}

// A state or a drawing belongs to one report. Several reports are written to one file each, in a directory.
Status CheckSeveral(const Options& options) {
  std::error_code error;
  for (const auto& [option, value] : {std::pair("--resume", options.state), std::pair("--svg", options.print.svg)}) {
    if (!value.empty()) return {ExitCode::kUsage, std::string(option) + " is for one report; name one"};
  }
  if (options.output.empty() || std::filesystem::is_directory(options.output, error)) return {};
  return {ExitCode::kUsage, "--output: " + Visible(options.output) + " is not a directory; several reports need one"};
}

// Each chunk is allocated and freed several times. By default the C library returns the memory to the system each time,
// and the next use of it takes as long as the rest of the transfer.
void KeepFreedMemory() {
  constexpr int kKeptBytes = 64 << 20;
  constexpr int kMappedBytes = 32 << 20;  // smaller blocks come from the heap
  (void)mallopt(M_TRIM_THRESHOLD, kKeptBytes);
  (void)mallopt(M_MMAP_THRESHOLD, kMappedBytes);
}

Status Fetch(Context& context, const Values& values) {
  KeepFreedMemory();
  Options options = OptionsOf(values);
  ReportArguments arguments;
  if (Status status = ReportsOf(values, context.output, arguments); !status.IsOk()) return status;
  if (Status status = CheckRecordPrintOptions(options.print); !status.IsOk()) return status;
  if (Status status = SliceOf(values, options.slice); !status.IsOk()) return status;
  const bool is_all = values.Flag("--all");
  options.are_several = is_all || arguments.reports.size() > 1;
  if (Status status = options.are_several ? CheckSeveral(options) : Status(); !status.IsOk()) return status;
  const InterruptGuard guard;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  const std::string directory = options.output;
  return ForEachReport(context.output, arguments, [&](const ReportArgument& report) {
    options.report = report.text;
    Status found = is_all ? Status() : FindReportName(report.text, options.report);
    if (!found.IsOk()) return found;
    if (options.are_several && !directory.empty()) {
      MakeSubdirectories(directory, options.report);
      options.output = directory + "/" + options.report;
    }
    return FetchReport(context, options, *module);
  });
}

constexpr Parameter kParameters[] = {
    {.name = "--output",
     .letter = "-o",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help =
         "Write the records to this file, or each of several reports to a file in this directory (default: -, standard "
         "output)"},
    {.name = "--chunk-records",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Maximum number of records in one call of the module",
     .limits = kPositiveInt32},
    {.name = "--json",
     .help = "Print the summary as JSON on standard output",
     .needs = "--output",
     .excludes = {"--plot", "--fields"}},
};

constexpr Parameter kResumeParameters[] = {
    {.name = "--resume",
     .kind = ValueKind::kFile,
     .value = "STATE",
     .help = "Fetch only what is new since the last run with this state file; the first run creates it",
     .excludes = {"--plot", "--fields", "--last", "--since", "--until", "--grep", "--reverse"}},
};

constexpr Example kFetchExamples[] = {
    {"qxctl fetch load -o load.txt", "Write all records to a file"},
    {"qxctl fetch --all -o saved/", "Write every report to a file of its own"},
    {"qxctl fetch load --last 10", "Print the newest ten records"},
    {"qxctl fetch load --since -1h --grep error", "Print those of the last hour that contain a word"},
    {"qxctl fetch load --resume load.state -o load.txt", "Append what is new since the last run"},
    {"qxctl fetch load --format csv --separator ' '", "Print the records as a table"},
};

}  // namespace

constinit const Command kFetchCommand = {
    .words = "fetch",
    .help = "Transfer a whole report through the module",
    .group = kReportsHeading,
    .run = Fetch,
    .parameters = {kReportsOrAllParameters, kParameters, kRecordSliceParameters, kRecordPrintParameters,
                   kResumeParameters, kModuleParameters, kBlockParameters},
    .examples = kFetchExamples};

}  // namespace qx::ctl
