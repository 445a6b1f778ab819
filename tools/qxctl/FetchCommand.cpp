// qxctl fetch NAME: a whole report through the module, to standard output or into a file.
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tools/qxctl/CallOptions.h"
#include "tools/qxctl/Commands.h"
#include "tools/qxctl/Interrupt.h"
#include "tools/qxctl/OutputFile.h"
#include "tools/qxctl/Transfer.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;
  std::string report;
  std::string output;  // empty: standard output
  std::optional<std::int32_t> chunk_records;
  bool json = false;
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

// A file is put in place only if the transfer came to its end; a changed or shortened report is better than none.
Status Carry(Context& context, const Options& options, Transfer& transfer) {
  OutputFile file;
  const bool to_file = !options.output.empty();
  if (to_file) {
    if (Status status = file.Open(options.output); !status.IsOk()) return status;
  }
  Status status = transfer.Run([&](std::string_view records, const TransferCount& so_far) {
    context.output.Progress(SummaryLine(options.report, so_far));
    return to_file ? file.Write(records) : context.output.Data(records);
  });
  if (!to_file || !transfer.ReachedEnd()) return status;
  Status committed = file.Commit();
  return committed.IsOk() ? status : committed;
}

Status Summarise(Context& context, const Options& options, const TransferCount& count, const Status& status) {
  if (options.json) {
    Status printed = context.output.Document(SummaryToJson(options, count, status));
    return printed.IsOk() ? status : printed;
  }
  const bool has_begun = count.chunks > 0 || status.IsOk();
  if (has_begun) context.output.Note(SummaryLine(options.report, count));
  return status;
}

Status Fetch(Context& context, const Options& options) {
  const InterruptGuard guard;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  WorkerThread worker(*module, options.call.block);
  Transfer transfer(worker, options.report, options.chunk_records);
  const Status status = Carry(context, options, transfer);
  return Summarise(context, options, transfer.Count(), status);
}

}  // namespace

void AddFetchCommand(CLI::App& app, Context& context) {
  CLI::App& command = *app.add_subcommand("fetch", "Transfer a whole report through the module");
  const auto options = std::make_shared<Options>();
  command.add_option("NAME", options->report, "Report name, below the report directory")->required();
  CLI::Option* const output =
      command.add_option("-o,--output", options->output, "Write the records to this file (default: standard output)");
  command.add_option("--chunk-records", options->chunk_records, "Ask for at most so many records a call")
      ->check(CLI::PositiveNumber);
  command.add_flag("--json", options->json, "Print the summary as JSON on standard output; needs -o")->needs(output);
  AddCallOptions(command, options->call);
  command.callback([&context, options] { context.run = [&context, options] { return Fetch(context, *options); }; });
}

}  // namespace qx::ctl
