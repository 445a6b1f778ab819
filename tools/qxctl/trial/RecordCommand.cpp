// Makes calls and stores each as a file: block, input, result, state word and reply.
#include "tools/qxctl/trial/RecordCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/OutputFile.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/InstanceNames.h"
#include "tools/qxctl/module/ReportDocuments.h"
#include "tools/qxctl/module/StateWord.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/trial/CallFile.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;
  std::string target;
  std::string function;
  std::string input;
  ReportRequest request;
  bool transfer = false;
  bool force = false;
};

const std::map<std::string, RequestFunction>& Functions() {
  static const std::map<std::string, RequestFunction> functions = {{"what", RequestFunction::kWhat},
                                                                   {"reflect", RequestFunction::kReflect},
                                                                   {"reports", RequestFunction::kGetReports},
                                                                   {"names", RequestFunction::kGetReportInstanceNames}};
  return functions;
}

RequestFunction FunctionOf(const Options& options) { return Functions().at(options.function); }

bool IsDirectory(const std::string& path) {
  struct stat found;
  return stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

// "DIR/0001-GetReports.json": the names are in the order of the calls.
std::string NextFile(const std::string& directory, RequestFunction function) {
  int last = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    int number = 0;
    if (std::sscanf(entry.path().filename().c_str(), "%4d-", &number) == 1) last = std::max(last, number);
  }
  char number[16];
  std::snprintf(number, sizeof number, "%04d", last + 1);
  return directory + "/" + number + "-" + NameOf(function) + ".json";
}

Status Keep(Context& context, const Options& options, const RecordedCall& call) {
  if (options.target == "-") return context.output.Data(CallFileText(call));
  const bool is_directory = IsDirectory(options.target);
  const std::string path = is_directory ? NextFile(options.target, FunctionOf(options)) : options.target;
  if (!options.force && access(path.c_str(), F_OK) == 0) {
    return {ExitCode::kRefused, path + " exists; name another file, or replace it with --force"};
  }
  OutputFile file;
  if (Status status = file.Open(path, options.force); !status.IsOk()) return status;
  if (Status status = file.Write(CallFileText(call)); !status.IsOk()) return status;
  if (Status status = file.Commit(); !status.IsOk()) return status;
  context.output.Note(path + ": " + call.function + ", result " + std::to_string(call.result) + ", reply " +
                      (call.reply.has_value() ? std::to_string(call.reply->size()) + " bytes" : "none"));
  return {};
}

Status MakeInput(const Options& options, std::string& input) {
  const RequestFunction function = FunctionOf(options);
  const bool is_of_report =
      function == RequestFunction::kGetReports || function == RequestFunction::kGetReportInstanceNames;
  if (!is_of_report || !options.input.empty()) return ReadArgument(options.input, input, options.force);
  if (options.request.name.empty()) {
    return {ExitCode::kUsage, "name a report, or give a request document with --input"};
  }
  input =
      function == RequestFunction::kGetReports ? RequestText(options.request) : NamesRequestText(options.request.name);
  return {};
}

RecordedCall MakeCall(WorkerThread& worker, RequestFunction function, const std::string& input) {
  const CallResult answer = worker.Call(function, input);
  RecordedCall call;
  call.function = NameOf(function);
  call.block = BlockToJson(*worker.Block().Raw());
  call.input = input;
  call.result = answer.result;
  if (function == RequestFunction::kGetReports) call.state_word = StateWordOf(worker.Block().ProviderData());
  call.reply = answer.reply;
  return call;
}

// Records all calls of one transfer, up to the one that finds no more records.
Status RecordTransfer(Context& context, Options options, WorkerThread& worker) {
  for (;;) {
    const RecordedCall call = MakeCall(worker, RequestFunction::kGetReports, RequestText(options.request));
    if (Status status = Keep(context, options, call); !status.IsOk()) return status;
    const CallResult answer{call.result, call.reply, 0};
    const ReportReply reply = ParseReply(answer);
    if (IsEndOfReport(answer)) return {};
    Status status = StatusOfReports(answer, reply);
    if (status.Code() == ExitCode::kNotFound) return NoSuchReport(options.request.name);
    if (!status.IsOk()) return status;
    if (reply.next_index <= options.request.start_index) {
      return {ExitCode::kFinding, "the module's transfer makes no progress"};
    }
    options.request.start_index = reply.next_index;
  }
}

Status CheckTransfer(const Options& options) {
  if (!options.transfer) return {};
  if (options.function != "reports" || options.request.name.empty() || !IsDirectory(options.target)) {
    return {
        ExitCode::kUsage,
        "--transfer stores the calls of one transfer: give a directory, the word \"reports\" and the name of a report"};
  }
  return {};
}

Options OptionsOf(const Values& values) {
  Options options;
  options.call = CallOptionsOf(values);
  options.target = values.Text("TARGET");
  options.function = values.Text("FUNCTION");
  options.input = values.Text("--input");
  options.request.start_index = static_cast<std::int32_t>(values.Integer("--start", 0));
  if (values.Has("--records")) options.request.record_count = static_cast<std::int32_t>(values.Integer("--records", 0));
  options.transfer = values.Flag("--transfer");
  options.force = values.Flag("--force");
  return options;
}

Status Record(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  if (Status status = FindReportName(values.Text("REPORT"), options.request.name); !status.IsOk()) return status;
  if (Status status = CheckTransfer(options); !status.IsOk()) return status;
  std::string input;
  if (Status status = MakeInput(options, input); !status.IsOk()) return status;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  WorkerThread worker(*module, options.call.block);
  if (options.transfer) return RecordTransfer(context, options, worker);
  return Keep(context, options, MakeCall(worker, FunctionOf(options), input));
}

constexpr std::string_view kFunctionNames[] = {"what", "reflect", "reports", "names"};

constexpr Parameter kParameters[] = {
    {.name = "TARGET",
     .kind = ValueKind::kFile,
     .help = "File, directory for a numbered file, or - for standard output",
     .is_required = true},
    {.name = "FUNCTION",
     .kind = ValueKind::kText,
     .help = "The function: what, reflect, reports or names",
     .choices = kFunctionNames,
     .is_required = true},
    {.name = "REPORT", .kind = ValueKind::kReportOrStore, .help = kReportHelp},
    {.name = "--input",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Request document: TEXT, @FILE, or - for standard input"},
    {.name = "--start",
     .kind = ValueKind::kInteger,
     .value = "INDEX",
     .help = "Index of the first record; 0 is the oldest",
     .limits = kInt32Limits},
    {.name = "--records",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Maximum number of records in the reply",
     .limits = kInt32Limits},
    {.name = "--transfer", .help = "Store every call of a transfer, to its end"},
    {.name = "--force", .help = "Replace a file that exists"},
};

constexpr Example kRecordExamples[] = {
    {"qxctl module record call.json what", "Keep one call in a file"},
    {"qxctl module record calls/ reports load --transfer", "Keep every call of a transfer in a directory"},
};

}  // namespace

constinit const Command kRecordCommand = {.words = "module record",
                                          .help = "Make a call and store it as a file",
                                          .run = Record,
                                          .parameters = {kParameters, kModuleParameters, kBlockParameters},
                                          .examples = kRecordExamples};

}  // namespace qx::ctl
