// Makes one call into the module, and prints the reply, the result and the time.
#include "tools/qxctl/module/ModuleCommand.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/InstanceNames.h"
#include "tools/qxctl/module/ReportDocuments.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;
  std::string input;  // empty: the request is made from `request`, or is empty
  ReportRequest request;
  bool json = false;
  bool force = false;
};

Json ReplyToJson(const CallResult& call) {
  Json reply = {{"reply", nullptr}};
  if (call.reply.has_value()) SetText(reply, "reply", *call.reply);
  reply["replyBytes"] = call.reply.has_value() ? call.reply->size() : 0;
  return reply;
}

Json CallToJson(RequestFunction function, const CallResult& call, const Status& status) {
  Json document = {{"function", NameOf(function)}, {"result", call.result}};
  document.Merge(ReplyToJson(call));
  const ReportReply reply = ParseReply(call);
  document["error"] = nullptr;
  if (reply.kind == ReplyKind::kError) {
    document["error"] = {{"msg", reply.message}, {"lastError", reply.last_error.value_or(0)}};
  }
  document["seconds"] = call.seconds;
  document["exitCode"] = static_cast<int>(status.Code());
  return document;
}

std::string Summary(RequestFunction function, const CallResult& call) {
  char text[128];
  const std::string reply = call.reply.has_value() ? std::to_string(call.reply->size()) + " bytes" : "none";
  std::snprintf(text, sizeof text, "%s: result %d, reply %s, %.3f ms", NameOf(function), call.result, reply.c_str(),
                call.seconds * 1000);
  return text;
}

Status StatusOfCall(RequestFunction function, const CallResult& call) {
  if (function == RequestFunction::kGetReports) {
    if (IsEndOfReport(call)) return {ExitCode::kFinding, "the module has no records from that index on"};
    return StatusOfReports(call, ParseReply(call));
  }
  if (function == RequestFunction::kGetReportInstanceNames) {
    std::vector<Instance> instances;
    return InstancesOf(call, instances);
  }
  if (call.result != 0) {
    const std::string result = std::to_string(call.result);
    return {ExitCode::kRefused,
            "the module refuses with result " + result + "; \"qxctl explain " + result + "\" shows why"};
  }
  if (call.reply.has_value()) return {};
  return {ExitCode::kFinding, function == RequestFunction::kReflect ? "no reply: the input is not well-formed markup"
                                                                    : "the module returned no reply"};
}

Status Print(Context& context, RequestFunction function, const CallResult& call, const Options& options) {
  Status status = StatusOfCall(function, call);
  const bool is_missing = status.Code() == ExitCode::kNotFound && !options.request.name.empty();
  if (is_missing && function == RequestFunction::kGetReports) status = NoSuchReport(options.request.name);
  if (is_missing && function == RequestFunction::kGetReportInstanceNames) status = NoNamesFile(options.request.name);
  if (options.json) {
    if (Status printed = context.output.Document(CallToJson(function, call, status)); !printed.IsOk()) return printed;
    return status;
  }
  if (Status printed = context.output.Data(call.reply.value_or("")); !printed.IsOk()) return printed;
  context.output.Note(Summary(function, call));
  return status;
}

// The request document: the given one, or one for the named report.
Status MakeInput(RequestFunction function, const Options& options, std::string& input) {
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

Status Call(Context& context, RequestFunction function, const Options& options) {
  std::string input;
  if (Status status = MakeInput(function, options, input); !status.IsOk()) return status;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  WorkerThread worker(*module, options.call.block);
  return Print(context, function, worker.Call(function, input), options);
}

// --- the commands

Options OptionsOf(const Values& values) {
  Options options;
  options.call = CallOptionsOf(values);
  options.input = values.Text("--input");
  options.json = values.Flag("--json");
  options.force = values.Flag("--force");
  return options;
}

Status What(Context& context, const Values& values) { return Call(context, RequestFunction::kWhat, OptionsOf(values)); }

Status Reflect(Context& context, const Values& values) {
  return Call(context, RequestFunction::kReflect, OptionsOf(values));
}

Status Reports(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  if (Status status = FindReportName(values.Text("REPORT"), options.request.name); !status.IsOk()) return status;
  options.request.start_index = static_cast<std::int32_t>(values.Integer("--start", 0));
  if (values.Has("--records")) options.request.record_count = static_cast<std::int32_t>(values.Integer("--records", 0));
  return Call(context, RequestFunction::kGetReports, options);
}

Status Names(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  if (Status status = FindReportName(values.Text("REPORT"), options.request.name); !status.IsOk()) return status;
  return Call(context, RequestFunction::kGetReportInstanceNames, options);
}

constexpr Parameter kParameters[] = {
    {.name = "--input",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Request document: TEXT, @FILE, or - for standard input"},
    {.name = "--json", .help = "Print reply, result and time as JSON"},
    {.name = "--force", .help = "Also read an input file of another user"},
};

constexpr Parameter kNameParameters[] = {
    {.name = "REPORT", .kind = ValueKind::kReportOrStore, .help = kReportHelp, .excludes = {"--input"}},
};

constexpr Parameter kRangeParameters[] = {
    {.name = "--start",
     .kind = ValueKind::kInteger,
     .value = "INDEX",
     .help = "Index of the first record; 0 is the oldest",
     .limits = kInt32Limits,
     .excludes = {"--input"}},
    {.name = "--records",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Maximum number of records in the reply",
     .limits = kInt32Limits,
     .excludes = {"--input"}},
};

constexpr Example kModuleWhatExamples[] = {
    {"qxctl module what", "Show name and version of the module"},
    {"qxctl module what --module build/QXRemConXfer.so", "Show those of another build"},
};

constexpr Example kModuleReflectExamples[] = {
    {"qxctl module reflect --input '<a x=\"1\"/>'", "Send a document to the module and print its echo"},
    {"qxctl module reflect --input @request.xml --json", "Send the document of a file, print the result as JSON"},
};

constexpr Example kModuleReportsExamples[] = {
    {"qxctl module reports load --start 0 --records 10", "Request the oldest ten records"},
    {"qxctl module reports load --user bob --privilege AccessPerformanceMgr",
     "Request them as a user who has the privilege"},
};

constexpr Example kModuleNamesExamples[] = {
    {"qxctl module names load", "Print the reply with the instance names of a report"},
};

}  // namespace

constinit const Command kModuleWhatCommand = {.words = "module what",
                                              .help = "Print the name and version of the module",
                                              .run = What,
                                              .parameters = {kParameters, kModuleParameters, kBlockParameters},
                                              .examples = kModuleWhatExamples};

constinit const Command kModuleReflectCommand = {.words = "module reflect",
                                                 .help = "Make the module echo a document",
                                                 .run = Reflect,
                                                 .parameters = {kParameters, kModuleParameters, kBlockParameters},
                                                 .examples = kModuleReflectExamples};

constinit const Command kModuleReportsCommand = {
    .words = "module reports",
    .help = "Request records of a report in one call",
    .run = Reports,
    .parameters = {kParameters, kModuleParameters, kBlockParameters, kNameParameters, kRangeParameters},
    .examples = kModuleReportsExamples};

constinit const Command kModuleNamesCommand = {
    .words = "module names",
    .help = "Request the instance names of a report in one call",
    .run = Names,
    .parameters = {kParameters, kModuleParameters, kBlockParameters, kNameParameters},
    .examples = kModuleNamesExamples};

}  // namespace qx::ctl
