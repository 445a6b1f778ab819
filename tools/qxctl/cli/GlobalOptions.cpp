#include "tools/qxctl/cli/GlobalOptions.h"

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kOutput = "Output";
constexpr std::string_view kTracing = "Tracing";
constexpr std::string_view kColors[] = {"auto", "always", "never"};
constexpr int kTraceLevelDefault = 5;
constexpr Limits kTraceLevels = {0, 6};

constexpr Parameter kAnswered[] = {kVersionOption};

constexpr Parameter kOptions[] = {
    {.name = "--quiet", .help = "Print no notes and no progress; problems are still printed", .group = kOutput},
    {.name = "--verbose", .help = "Print more details", .group = kOutput, .excludes = {"--quiet"}},
    {.name = "--color",
     .kind = ValueKind::kText,
     .help = "Colour: auto (on a terminal, unless NO_COLOR is set), always or never",
     .group = kOutput,
     .choices = kColors},
    {.name = "--trace",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Store the traces of the module and of qxctl in this directory",
     .group = kTracing},
    {.name = "--trace-level",
     .kind = ValueKind::kInteger,
     .value = "N",
     .help = "Level of the traces: 0 (none), 1 (errors) to 6 (memory addresses)",
     .group = kTracing,
     .limits = kTraceLevels,
     .default_value = "5",
     .needs = "--trace"},
};

Verbosity VerbosityOf(const Values& values) {
  if (values.Flag("--quiet")) return Verbosity::kQuiet;
  return values.Flag("--verbose") ? Verbosity::kVerbose : Verbosity::kNormal;
}

ColorMode ColorOf(const std::string& when) {
  if (when == "always") return ColorMode::kAlways;
  return when == "never" ? ColorMode::kNever : ColorMode::kAuto;
}

}  // namespace

constinit const Command kQxctl = {.words = "",
                                  .help = "Works with the QXRemConXfer provider module and with report files",
                                  .parameters = {kAnswered, kOptions}};

Status ApplyGlobalOptions(Context& context, const Values& values) {
  context.output.Configure(VerbosityOf(values), ColorOf(values.Text("--color", "auto")));
  const std::string directory = values.Text("--trace");
  if (directory.empty()) return {};
  const auto level = static_cast<int>(values.Integer("--trace-level", kTraceLevelDefault));
  if (Status status = context.traces.Keep(directory, level); !status.IsOk()) return status;
  context.output.Detail("qxctl: the traces go to " + directory);
  return {};
}

}  // namespace qx::ctl
