// Prints the instance names of a report, read through the module.
#include "tools/qxctl/fetch/NamesCommand.h"

#include <memory>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/InstanceNames.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

Json NamesJson(const std::string& report, const std::vector<Instance>& instances) {
  Json list = Json::Array();
  for (const Instance& instance : instances) {
    Json entry;
    SetText(entry, "number", instance.number);
    SetText(entry, "name", instance.name);
    list.Append(std::move(entry));
  }
  Json document;
  SetText(document, "report", report);
  document["instances"] = std::move(list);
  return document;
}

std::string ToText(const std::vector<Instance>& instances) {
  std::string lines;
  for (const Instance& instance : instances) lines += Visible(instance.number) + "=" + Visible(instance.name) + "\n";
  return lines;
}

Status Names(Context& context, const Values& values) {
  const CallOptions call = CallOptionsOf(values);
  std::string report;
  if (Status status = FindReportName(values.Text("REPORT"), report); !status.IsOk()) return status;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(call, context.traces, module); !status.IsOk()) return status;
  WorkerThread worker(*module, call.block);
  std::vector<Instance> instances;
  const CallResult answer = worker.Call(RequestFunction::kGetReportInstanceNames, NamesRequestText(report));
  Status status = InstancesOf(answer, instances);
  if (status.Code() == ExitCode::kNotFound) return NoNamesFile(report);
  if (!status.IsOk()) return status;

  return ShowResult(
      context, values, [&] { return NamesJson(report, instances); }, [&] { return ToText(instances); });
}

constexpr Parameter kParameters[] = {
    {.name = "--json", .help = "Print the list as JSON"},
};

constexpr Example kNamesExamples[] = {
    {"qxctl names load", "List the instance names of a report"},
};

}  // namespace

constinit const Command kNamesCommand = {
    .words = "names",
    .help = "List the instance names of a report through the module",
    .group = kReportsHeading,
    .run = Names,
    .parameters = {kReportParameter, kParameters, kModuleParameters, kBlockParameters},
    .examples = kNamesExamples};

}  // namespace qx::ctl
