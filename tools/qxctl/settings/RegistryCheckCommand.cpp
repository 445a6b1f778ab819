// Compares registry files, exports parts of a registry file, and shows how a load reads a registry file.
#include "tools/qxctl/settings/RegistryCheckCommand.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "registry/tools/FileLint.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/OutputFile.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/RegistryFiles.h"
#include "tools/qxctl/settings/RegistryText.h"
#include "tools/qxctl/settings/Settings.h"

namespace qx::ctl {

namespace {

using registry::LintFinding;
using registry::LintResult;
using registry::LintSeverity;
using registry::TreeDifference;

// The two files of a comparison.
struct DiffFiles {
  RegistrySource source;  // instead of the second
  std::string first;
  std::optional<std::string> second;
};

// --- diff

Status LoadSecond(Context& context, const DiffFiles& files, CRegistryNode& tree) {
  if (!files.second) return LoadTree(context, files.source, tree);
  std::string bytes;
  return ReadTreeFile(*files.second, tree, bytes);
}

Json ToJson(const DiffFiles& files, const TreeDifference& difference) {
  Json document;
  SetText(document, "before", files.first);
  SetText(document, "after", files.second.value_or(files.source.Path()));
  document["changes"] = ChangesToJson(difference);
  document["allChanges"] = difference.is_complete;
  return document;
}

Status Diff(Context& context, const Values& values) {
  DiffFiles files = {RegistrySourceOf(values), values.Text("FILE"), std::nullopt};
  if (values.Has("NEWER")) files.second = values.Text("NEWER");
  if (files.first == "-" && files.second == "-") return {ExitCode::kUsage, "only one of the files can be -"};
  CRegistryNode before;
  CRegistryNode after;
  std::string bytes;
  if (Status status = ReadTreeFile(files.first, before, bytes); !status.IsOk()) return status;
  if (Status status = LoadSecond(context, files, after); !status.IsOk()) return status;
  const TreeDifference difference = registry::Compare(before, after);
  if (!difference.is_complete) context.output.Problem("there are more changes than are listed");
  return ShowResult(
      context, values, [&] { return ToJson(files, difference); },
      [&] { return ChangesToText(context.output, difference); },
      difference.changes.empty() ? Status() : Status(ExitCode::kFinding, ""));
}

// --- export

Status WriteTo(const std::string& path, const std::string& text, bool force) {
  OutputFile file;
  if (Status status = file.Open(path, force); !status.IsOk()) return status;
  if (Status status = file.Write(text); !status.IsOk()) return status;
  return file.Commit();
}

Status Export(Context& context, const Values& values) {
  const std::string key = values.Text("KEY");
  CRegistryNode tree;
  if (Status status = LoadTree(context, RegistrySourceOf(values), tree); !status.IsOk()) return status;
  CRegistryNode part;
  if (registry::CopyPart(tree, key, part) != registry::EditState::kDone) {
    return {ExitCode::kNotFound, "there is no key " + Visible(key)};
  }
  std::string text;
  if (const auto refusal = registry::WhyNotStorable(part, text)) {
    return {ExitCode::kRefused, "a registry file cannot store this: " + refusal->reason};
  }
  const std::string file = values.Text("FILE", "-");
  return file != "-" ? WriteTo(file, text, values.Flag("--force")) : context.output.Data(text);
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
  Json findings = Json::Array();
  for (const LintFinding& finding : result.findings) {
    findings.Append({{"line", finding.line},
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

Status Lint(Context& context, const Values& values) {
  const std::string path = RegistrySourceOf(values).Path();
  FileImage image;
  if (Status status = StatusOfEdit(ReadFileImage(path, image)); !status.IsOk()) return status;
  const LintResult result = registry::LintFile(image.bytes);
  return ShowResult(
      context, values, [&] { return ToJson(path, result); }, [&] { return ToText(context.output, path, result); },
      StatusOf(result));
}

// --- the commands

constexpr Parameter kDiffParameters[] = {
    {.name = "FILE", .kind = ValueKind::kFile, .help = "The older file; - for standard input", .is_required = true},
    {.name = "NEWER", .kind = ValueKind::kFile, .help = "The newer file; without it: the registry"},
};

constexpr Parameter kExportParameters[] = {
    {.name = "KEY",
     .kind = ValueKind::kRegistryKey,
     .help = "Path of the key, beginning with a hive; without it, or with \"\": everything"},
    {.name = "FILE", .kind = ValueKind::kFile, .help = "The file to write; - or without it: standard output"},
    {.name = "--force", .help = "Also write to a file of another user; it keeps its owner"},
};

constexpr Parameter kJsonParameters[] = {{.name = "--json", .help = "Print as JSON"}};

constexpr Example kRegistryDiffExamples[] = {
    {"qxctl registry diff backup.reg", "Compare a backup with the registry"},
    {"qxctl registry diff old.reg new.reg --json", "Compare two files"},
};

constexpr Example kRegistryExportExamples[] = {
    {"qxctl registry export > backup.reg", "Write the whole registry to a file"},
    {"qxctl registry export HKEY_LOCAL_MACHINE/SOFTWARE software.reg", "Write one key with everything in it"},
};

constexpr Example kRegistryLintExamples[] = {
    {"qxctl registry lint", "Check the registry"},
    {"qxctl registry lint --file new.reg", "Check a file before it is imported"},
};

}  // namespace

constinit const Command kRegistryDiffCommand = {.words = "registry diff",
                                                .help = "Compare two registry files by keys and values",
                                                .run = Diff,
                                                .parameters = {kRegistryParameters, kDiffParameters, kJsonParameters},
                                                .examples = kRegistryDiffExamples};

constinit const Command kRegistryExportCommand = {.words = "registry export",
                                                  .help = "Write a key with everything in it as a registry file",
                                                  .run = Export,
                                                  .parameters = {kRegistryParameters, kExportParameters},
                                                  .examples = kRegistryExportExamples};

constinit const Command kRegistryLintCommand = {.words = "registry lint",
                                                .help = "Find what a load of the file drops, changes or misreads",
                                                .run = Lint,
                                                .parameters = {kRegistryParameters, kJsonParameters},
                                                .examples = kRegistryLintExamples};

}  // namespace qx::ctl
