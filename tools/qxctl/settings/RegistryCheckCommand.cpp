// qxctl registry diff|export|lint: registry files beside one another, parts of one, and what a load makes of one.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "registry/tools/FileLint.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/cli/OutputFile.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/settings/RegistryCommands.h"
#include "tools/qxctl/settings/RegistryText.h"
#include "tools/qxctl/settings/Settings.h"

namespace qx::ctl {

namespace {

using registry::LintFinding;
using registry::LintResult;
using registry::LintSeverity;
using registry::TreeDifference;

struct Options {
  RegistrySource source;
  std::string key;
  std::string first;
  std::optional<std::string> second;
  bool json = false;
};

// --- diff

Status LoadSecond(Context& context, const Options& options, CRegistryNode& tree) {
  if (!options.second) return LoadTree(context, options.source, tree);
  std::string bytes;
  return ReadTreeFile(*options.second, tree, bytes);
}

Json ToJson(const Options& options, const TreeDifference& difference) {
  Json document;
  SetText(document, "before", options.first);
  SetText(document, "after", options.second.value_or(options.source.Path()));
  document["changes"] = ChangesToJson(difference);
  document["allChanges"] = difference.is_complete;
  return document;
}

Status Diff(Context& context, const Options& options) {
  if (options.first == "-" && options.second == "-") return {ExitCode::kUsage, "only one of the files can be -"};
  CRegistryNode before;
  CRegistryNode after;
  std::string bytes;
  if (Status status = ReadTreeFile(options.first, before, bytes); !status.IsOk()) return status;
  if (Status status = LoadSecond(context, options, after); !status.IsOk()) return status;
  const TreeDifference difference = registry::Compare(before, after);
  if (!difference.is_complete) context.output.Problem("there are more changes than are listed");
  Status printed = options.json ? context.output.Document(ToJson(options, difference))
                                : context.output.Data(ChangesToText(context.output, difference));
  if (!printed.IsOk()) return printed;
  return difference.changes.empty() ? Status() : Status(ExitCode::kFinding, "");
}

// --- export

Status WriteTo(const std::string& path, const std::string& text) {
  OutputFile file;
  if (Status status = file.Open(path); !status.IsOk()) return status;
  if (Status status = file.Write(text); !status.IsOk()) return status;
  return file.Commit();
}

Status Export(Context& context, const Options& options) {
  CRegistryNode tree;
  if (Status status = LoadTree(context, options.source, tree); !status.IsOk()) return status;
  CRegistryNode part;
  if (registry::CopyPart(tree, options.key, part) != registry::EditState::kDone) {
    return {ExitCode::kNotFound, "there is no key " + Visible(options.key)};
  }
  std::string text;
  if (const auto refusal = registry::WhyNotStorable(part, text)) {
    return {ExitCode::kRefused, "no file can hold this: " + refusal->reason};
  }
  return options.second && *options.second != "-" ? WriteTo(*options.second, text) : context.output.Data(text);
}

// --- lint

const char* NameOf(LintSeverity severity) { return severity == LintSeverity::kError ? "error" : "warning"; }

std::string ToText(const Output& output, const std::string& path, const LintResult& result) {
  std::string text;
  for (const LintFinding& finding : result.findings) {
    const bool is_error = finding.severity == LintSeverity::kError;
    text += path + ":" + std::to_string(finding.line) + ": " +
            output.Paint(is_error ? Style::kBad : Style::kWarning, NameOf(finding.severity)) + ": " + finding.rule +
            ": " + finding.explanation + "\n    " + finding.fix + "\n";
  }
  return text;
}

Json ToJson(const std::string& path, const LintResult& result) {
  Json findings = Json::array();
  for (const LintFinding& finding : result.findings) {
    findings.push_back({{"line", finding.line},
                        {"rule", finding.rule},
                        {"severity", NameOf(finding.severity)},
                        {"explanation", finding.explanation},
                        {"fix", finding.fix}});
  }
  Json document;
  SetText(document, "file", path);
  document["loads"] = result.loads;
  document["errors"] = result.errors;
  document["warnings"] = result.warnings;
  document["findings"] = std::move(findings);
  document["allFindings"] = result.IsComplete();
  return document;
}

Status StatusOf(const LintResult& result) {
  if (result.errors + result.warnings == 0) return {};
  return {ExitCode::kFinding, std::to_string(result.errors) + " error(s), " + std::to_string(result.warnings) +
                                  " warning(s)" + (result.IsComplete() ? "" : "; the first 100 are listed")};
}

Status Lint(Context& context, const Options& options) {
  const std::string path = options.source.Path();
  FileImage image;
  if (Status status = StatusOfEdit(ReadFileImage(path, image)); !status.IsOk()) return status;
  const LintResult result = registry::LintFile(image.bytes);
  Status printed = options.json ? context.output.Document(ToJson(path, result))
                                : context.output.Data(ToText(context.output, path, result));
  return printed.IsOk() ? StatusOf(result) : printed;
}

// --- command line

using Run = Status (*)(Context&, const Options&);

CLI::App& AddPart(CLI::App& parent, Context& context, const char* name, const char* help,
                  const std::shared_ptr<Options>& options, Run run) {
  CLI::App& command = *parent.add_subcommand(name, help);
  AddSourceOptions(command, options->source);
  command.callback(
      [&context, options, run] { context.run = [&context, options, run] { return run(context, *options); }; });
  return command;
}

void AddDiff(CLI::App& parent, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = AddPart(parent, context, "diff", "Compare two registry files by keys and values", options, Diff);
  command.add_option("FILE", options->first, "The older file; - for standard input")->required();
  command.add_option("NEWER", options->second, "The newer file; without it: the registry");
  command.add_flag("--json", options->json, "Print as JSON");
}

void AddExport(CLI::App& parent, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command =
      AddPart(parent, context, "export", "Write a key with everything in it as a registry file", options, Export);
  command.add_option("KEY", options->key, "Path of the key, from a hive on; \"\" or without it: everything");
  command.add_option("FILE", options->second, "The file to write; - or without it: standard output");
}

void AddLint(CLI::App& parent, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command =
      AddPart(parent, context, "lint", "Find what a load of the file drops, changes or misreads", options, Lint);
  command.add_flag("--json", options->json, "Print as JSON");
}

}  // namespace

void AddRegistryCheckCommands(CLI::App& registry, Context& context) {
  AddDiff(registry, context);
  AddExport(registry, context);
  AddLint(registry, context);
}

}  // namespace qx::ctl
