// qxctl module what|reflect|reports|names: one call into the module, with the reply, the result and how long it took.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/InstanceNames.h"
#include "tools/qxctl/module/ModuleCommands.h"
#include "tools/qxctl/module/ReportDocuments.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;
  std::string input;  // empty: the request is made of `request`, or is empty
  ReportRequest request;
  bool json = false;
};

Json ReplyToJson(const CallResult& call) {
  Json reply = {{"reply", nullptr}};
  if (call.reply.has_value()) SetText(reply, "reply", *call.reply);
  reply["replyBytes"] = call.reply.has_value() ? call.reply->size() : 0;
  return reply;
}

Json CallToJson(RequestFunction function, const CallResult& call, const Status& status) {
  Json document = {{"function", NameOf(function)}, {"result", call.result}};
  document.update(ReplyToJson(call));
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
  if (call.result != 0) return {ExitCode::kRefused, "the module refuses with result " + std::to_string(call.result)};
  if (call.reply.has_value()) return {};
  return {ExitCode::kFinding, function == RequestFunction::kReflect ? "no reply: the input is not well-formed markup"
                                                                    : "the module gave no reply"};
}

Status Print(Context& context, RequestFunction function, const CallResult& call, const Options& options) {
  Status status = StatusOfCall(function, call);
  if (options.json) {
    if (Status printed = context.output.Document(CallToJson(function, call, status)); !printed.IsOk()) return printed;
    return status;
  }
  if (Status printed = context.output.Data(call.reply.value_or("")); !printed.IsOk()) return printed;
  context.output.Note(Summary(function, call));
  return status;
}

// The request document: the one that was given, or one for the report that was named.
Status MakeInput(RequestFunction function, const Options& options, std::string& input) {
  const bool is_of_report =
      function == RequestFunction::kGetReports || function == RequestFunction::kGetReportInstanceNames;
  if (!is_of_report || !options.input.empty()) return ReadArgument(options.input, input);
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

// The options live as long as the command line's callbacks.
CLI::App& AddCall(CLI::App& parent, Context& context, RequestFunction function, const char* name, const char* help,
                  const std::shared_ptr<Options>& options) {
  CLI::App& command = *parent.add_subcommand(name, help);
  command.add_option("--input", options->input, "Request document: TEXT, @FILE, or @- for standard input");
  command.add_flag("--json", options->json, "Print reply, result and time as JSON");
  AddCallOptions(command, options->call);
  command.callback([&context, function, options] {
    context.run = [&context, function, options] { return Call(context, function, *options); };
  });
  return command;
}

void AddReports(CLI::App& parent, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command =
      AddCall(parent, context, RequestFunction::kGetReports, "reports", "Ask for records of a report, once", options);
  CLI::Option* const input = command.get_option("--input");
  command.add_option("NAME", options->request.name, "Report name, below the report directory")->excludes(input);
  command.add_option("--start", options->request.start_index, "Index of the first record, 0 being the oldest")
      ->excludes(input);
  command.add_option("--records", options->request.record_count, "Most records in the reply")->excludes(input);
}

void AddNames(CLI::App& parent, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = AddCall(parent, context, RequestFunction::kGetReportInstanceNames, "names",
                              "Ask for the instance names of a report", options);
  command.add_option("NAME", options->request.name, "Report name, below the report directory")
      ->excludes(command.get_option("--input"));
}

}  // namespace

void AddModuleCommand(CLI::App& app, Context& context) {
  CLI::App& module = *app.add_subcommand("module", "Call the provider module, and try it hard");
  module.require_subcommand(1);
  AddCall(module, context, RequestFunction::kWhat, "what", "Ask the module who it is", std::make_shared<Options>());
  AddCall(module, context, RequestFunction::kReflect, "reflect", "Have a document echoed", std::make_shared<Options>());
  AddReports(module, context);
  AddNames(module, context);
  AddModuleLoadTest(module, context);
  AddModuleRecord(module, context);
  AddModuleReplay(module, context);
  AddModuleFaults(module, context);
}

}  // namespace qx::ctl
