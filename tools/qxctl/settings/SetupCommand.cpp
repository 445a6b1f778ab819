// Makes a first registry, the report directory and the trace directory. A registry that exists is never changed.
#include "tools/qxctl/settings/SetupCommand.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "debug/tools/TraceSettingSources.h"
#include "registry/RegistryPaths.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/SetupPlan.h"
#include "tools/qxctl/store/ReportSettings.h"

namespace qx::ctl {

namespace {

const char kApplication[] = "QXRemConXfer";

struct Setup {
  SetupPlaces places;
  bool exists = false;
  std::vector<SetupStep> steps;       // if there is no registry
  std::string text;                   // of the first registry
  std::vector<std::string> commands;  // if there is a registry
  bool is_applied = false;
};

// --- where

// An absolute path without "." and "..", and without a "/" at its end.
std::string Absolute(const std::string& path) {
  std::error_code error;
  std::string absolute = std::filesystem::absolute(path, error).lexically_normal().string();
  while (absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
  return absolute;
}

std::string TraceDirectoryOf(const Values& values) {
  const std::string settings = values.Text("--settings", debug::kTraceConfigDirectory);
  for (const debug::SettingSource& source : debug::ReadSettingSources(kApplication, settings)) {
    if (source.setting == "trace directory") return source.value;
  }
  return "";
}

SetupPlaces PlacesOf(const Values& values) {
  SetupPlaces places;
  places.registry = Absolute(values.Text("--directory", registry::kSystemDirectory));
  places.reports = Absolute(values.Text("--reports", kDefaultReportDirectory));
  places.traces = Absolute(TraceDirectoryOf(values));
  places.names_reports = values.Has("--reports");
  return places;
}

// --- showing

std::string UserName(uid_t user) {
  const passwd* const entry = getpwuid(user);
  return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::string GroupName(gid_t group) {
  const struct group* const entry = getgrgid(group);
  return entry != nullptr ? entry->gr_name : std::to_string(group);
}

std::string ModeText(mode_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & 07777));
  return text.data();
}

// "make  directory  root:root  0755  /srv/reports"
std::string LineOf(const SetupStep& step, std::size_t owner_width) {
  std::string owner = UserName(step.owner) + ":" + GroupName(step.group);
  owner.resize(std::max(owner.size(), owner_width), ' ');
  return std::string(step.exists ? "keep  " : "make  ") + (step.is_directory ? "directory  " : "file       ") + owner +
         "  " + ModeText(step.mode) + "  " + Visible(step.path) + "\n";
}

std::string ToText(const Setup& setup) {
  std::string text;
  if (setup.exists) {
    for (const std::string& command : setup.commands) text += command + "\n";
    return text;
  }
  std::size_t width = 0;
  for (const SetupStep& step : setup.steps) {
    width = std::max(width, UserName(step.owner).size() + GroupName(step.group).size() + 1);
  }
  for (const SetupStep& step : setup.steps) text += LineOf(step, width);
  return text + "\n" + Visible(setup.places.RegistryFile()) + ":\n" + setup.text;
}

Json ToJson(const SetupStep& step) {
  Json entry = {{"action", step.exists ? "keep" : "make"}, {"kind", step.is_directory ? "directory" : "file"}};
  SetText(entry, "path", step.path);
  entry["owner"] = UserName(step.owner);
  entry["group"] = GroupName(step.group);
  entry["mode"] = ModeText(step.mode);
  return entry;
}

Json ToJson(const Setup& setup, ExitCode code) {
  Json steps = Json::Array();
  for (const SetupStep& step : setup.steps) steps.Append(ToJson(step));
  Json commands = Json::Array();
  for (const std::string& command : setup.commands) commands.Append(command);
  Json document;
  SetText(document, "registry", setup.places.RegistryFile());
  document["exists"] = setup.exists;
  document["steps"] = std::move(steps);
  SetText(document, "content", setup.text);
  document["commands"] = std::move(commands);
  document["applied"] = setup.is_applied;
  document["exitCode"] = static_cast<int>(code);
  return document;
}

// --- the command

Status PlanExisting(Setup& setup) {
  setup.commands = CommandsFor(setup.places);
  const std::string exists = "there is a registry in " + Visible(setup.places.registry);
  if (setup.commands.empty()) return {ExitCode::kOk, exists + " already, and everything that it names exists"};
  return {ExitCode::kFinding, exists + ", so nothing was changed; " +
                                  (setup.commands.size() == 1 ? "this command sets" : "these commands set") + " it up"};
}

// The report directory belongs to the user who runs setup, because setup does not know the users of the agents.
void NoteAgents(Output& output, const Setup& setup) {
  output.Note("qxctl: only " + UserName(geteuid()) +
              " may write reports; an agent of another user needs \"chown USER " + ShellWord(setup.places.reports) +
              "\"");
}

Status PlanNew(Context& context, bool apply, Setup& setup) {
  if (Status status = FirstRegistry(setup.places, setup.text); !status.IsOk()) return status;
  if (Status status = PlanSteps(setup.places, setup.steps); !status.IsOk()) return status;
  if (!apply) return {ExitCode::kOk, "nothing was changed; --apply makes what is missing"};
  const InterruptGuard guard;  // a signal ends the command only after the registry was made
  if (Status status = MakeSteps(setup.steps, setup.text); !status.IsOk()) return status;
  setup.is_applied = true;
  context.output.Note("qxctl: done; make a report with \"qxctl report create " +
                      ShellWord(setup.places.reports + "/load") +
                      " --slots 1000\", and check everything with \"qxctl doctor\"");
  NoteAgents(context.output, setup);
  return {};
}

// Refuses empty names: that of an unset variable would mean the working directory.
Status CheckNames(const Values& values) {
  for (const char* const option : {"--reports", "--directory", "--settings"}) {
    const bool is_empty = values.Has(option) && values.Text(option).empty();
    if (is_empty) return {ExitCode::kUsage, std::string(option) + " is empty; name a directory"};
  }
  return {};
}

Status RunSetup(Context& context, const Values& values) {
  if (Status status = CheckNames(values); !status.IsOk()) return status;
  Setup setup;
  setup.places = PlacesOf(values);
  setup.exists = HasRegistry(setup.places.registry);
  Status status = setup.exists ? PlanExisting(setup) : PlanNew(context, values.Flag("--apply"), setup);
  if (status.Code() != ExitCode::kOk && status.Code() != ExitCode::kFinding) return status;
  return ShowResult(
      context, values, [&] { return ToJson(setup, status.Code()); }, [&] { return ToText(setup); }, status);
}

constexpr Parameter kParameters[] = {
    {.name = "--reports",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "The report directory",
     .default_value = kDefaultReportDirectory},
    {.name = "--directory",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the registry's files",
     .default_value = registry::kSystemDirectory},
    {.name = "--settings",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the trace settings files, instead of the system's"},
    {.name = "--apply", .help = "Make the directories and the registry; without it they are only shown"},
    {.name = "--json", .help = "Print as JSON"},
};

constexpr Example kSetupExamples[] = {
    {"qxctl setup --reports /srv/reports", "Show what would be made"},
    {"qxctl setup --reports /srv/reports --apply", "Make the directories and the registry"},
};

}  // namespace

constinit const Command kSetupCommand = {.words = "setup",
                                         .help = "Make a first registry with its directories, or show what is missing",
                                         .group = "Settings",
                                         .run = RunSetup,
                                         .parameters = {kParameters},
                                         .examples = kSetupExamples};

}  // namespace qx::ctl
