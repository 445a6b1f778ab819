// qxctl names NAME: the instance names of a report, through the module.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Commands.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/InstanceNames.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;
  std::string report;
  bool json = false;
};

Json ToJson(const Options& options, const std::vector<Instance>& instances) {
  Json list = Json::array();
  for (const Instance& instance : instances) {
    Json entry;
    SetText(entry, "number", instance.number);
    SetText(entry, "name", instance.name);
    list.push_back(std::move(entry));
  }
  return {{"report", options.report}, {"instances", std::move(list)}};
}

Status Names(Context& context, const Options& options) {
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  WorkerThread worker(*module, options.call.block);
  std::vector<Instance> instances;
  const CallResult call = worker.Call(RequestFunction::kGetReportInstanceNames, NamesRequestText(options.report));
  if (Status status = InstancesOf(call, instances); !status.IsOk()) return status;

  if (options.json) return context.output.Document(ToJson(options, instances));
  for (const Instance& instance : instances) {
    const std::string line = Visible(instance.number) + "=" + Visible(instance.name) + "\n";
    if (Status status = context.output.Data(line); !status.IsOk()) return status;
  }
  return {};
}

}  // namespace

void AddNamesCommand(CLI::App& app, Context& context) {
  CLI::App& command = *app.add_subcommand("names", "List the instance names of a report through the module");
  const auto options = std::make_shared<Options>();
  command.add_option("NAME", options->report, "Report name, below the report directory")->required();
  command.add_flag("--json", options->json, "Print the list as JSON");
  AddCallOptions(command, options->call);
  command.callback([&context, options] { context.run = [&context, options] { return Names(context, *options); }; });
}

}  // namespace qx::ctl
