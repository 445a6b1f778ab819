// Shows a profile file as programs read it.
#include "tools/qxctl/settings/IniCommand.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "inifile/IniFile.h"
#include "inifile/tools/ProfileText.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

struct Options {
  std::string name;  // as given; "-" is standard input
  std::string file;
  std::string section;
  std::string key;
};

// The names in the section or, if `section` is null, the sections. Empty names are left out, because no command can
// give one.
std::vector<std::string> NamesOf(const Options& options, const char* section) {
  std::vector<std::string> names = inifile::NamesIn(inifile::ReadWhole(options.file, section, nullptr));
  std::erase(names, "");
  return names;
}

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

Status CheckFile(const Options& options) {
  CIniFile file;
  if (file.Open(options.file.c_str(), true)) return {};
  const int error = errno;
  if (error != ENOENT) return Status::Io("cannot open " + options.name, error);
  return {ExitCode::kNotFound, "there is no file " + options.name};
}

// Sets the path of the file. If the file is standard input, `input` keeps a copy of it open.
Status FindFile(Options& options, file::Descriptor& input) {
  options.file = options.name;
  if (options.name == "-") return StandardInputAsFile(input, options.file);
  return CheckFile(options);
}

Status CheckSection(const Options& options) {
  if (Contains(NamesOf(options, nullptr), options.section)) return {};
  return {ExitCode::kNotFound, (options.name == "-" ? "standard input" : options.name) + " has no section [" +
                                   Visible(options.section) + "]; names are case-sensitive"};
}

// --- list

Status ListSections(Context& context, const Values& values, const Options& options) {
  const std::vector<std::string> sections = NamesOf(options, nullptr);
  const auto document = [&]() -> Json {
    Json list = Json::Array();
    for (const std::string& section : sections) {
      Json entry;
      SetText(entry, "section", section);
      list.Append(std::move(entry));
    }
    return {{"file", options.name}, {"sections", std::move(list)}};
  };
  const auto text = [&] {
    std::string lines;
    for (const std::string& section : sections) lines += "[" + Visible(section) + "]\n";
    return lines;
  };
  return ShowResult(context, values, document, text);
}

struct ListedEntry {
  std::string key;
  std::string value;
};

Json ToJson(const Options& options, const std::vector<ListedEntry>& entries) {
  Json list = Json::Array();
  for (const ListedEntry& each : entries) {
    Json entry;
    SetText(entry, "key", each.key);
    SetText(entry, "value", each.value);
    list.Append(std::move(entry));
  }
  Json document = {{"file", options.name}};
  SetText(document, "section", options.section);
  document["entries"] = std::move(list);
  return document;
}

std::string ToText(const std::vector<ListedEntry>& entries) {
  std::string lines;
  for (const ListedEntry& each : entries) lines += Visible(each.key) + "=" + Visible(each.value) + "\n";
  return lines;
}

// If a key occurs twice, it is listed twice, each time with the value that a reader gets: the first one.
Status ListEntries(Context& context, const Values& values, const Options& options) {
  if (Status status = CheckSection(options); !status.IsOk()) return status;
  std::vector<ListedEntry> entries;
  for (const std::string& key : NamesOf(options, options.section.c_str())) {
    entries.push_back({key, inifile::ReadWhole(options.file, options.section.c_str(), key.c_str())});
  }
  return ShowResult(
      context, values, [&] { return ToJson(options, entries); }, [&] { return ToText(entries); });
}

Status List(Context& context, const Values& values) {
  Options options = {.name = values.Text("FILE"), .file = {}, .section = values.Text("SECTION"), .key = {}};
  file::Descriptor input;
  if (Status status = FindFile(options, input); !status.IsOk()) return status;
  return options.section.empty() ? ListSections(context, values, options) : ListEntries(context, values, options);
}

// --- get

Json ToJson(const Options& options, const std::string& value) {
  Json document = {{"file", options.name}};
  SetText(document, "section", options.section);
  SetText(document, "key", options.key);
  SetText(document, "value", value);
  return document;
}

Status Get(Context& context, const Values& values) {
  Options options = {
      .name = values.Text("FILE"), .file = {}, .section = values.Text("SECTION"), .key = values.Text("KEY")};
  file::Descriptor input;
  if (Status status = FindFile(options, input); !status.IsOk()) return status;
  if (Status status = CheckSection(options); !status.IsOk()) return status;
  const std::string value = inifile::ReadWhole(options.file, options.section.c_str(), options.key.c_str());
  if (value.empty() && !Contains(NamesOf(options, options.section.c_str()), options.key)) {
    return {ExitCode::kNotFound, "the section [" + Visible(options.section) + "] has no key " + Visible(options.key)};
  }
  return ShowResult(
      context, values, [&] { return ToJson(options, value); }, [&] { return Visible(value) + "\n"; });
}

// --- the commands

constexpr Parameter kFileParameters[] = {
    {.name = "FILE", .kind = ValueKind::kFile, .help = "The profile file; - for standard input", .is_required = true},
    {.name = "--json", .help = "Print as JSON"},
};

constexpr Parameter kListParameters[] = {
    {.name = "SECTION",
     .kind = ValueKind::kIniSection,
     .help = "List the keys and values of this section, instead of the sections"},
};

constexpr Parameter kGetParameters[] = {
    {.name = "SECTION",
     .kind = ValueKind::kIniSection,
     .help = "The section's name, without brackets",
     .is_required = true},
    {.name = "KEY", .kind = ValueKind::kIniKey, .help = "The key's name", .is_required = true},
};

constexpr Example kIniListExamples[] = {
    {"qxctl ini list limits.ini", "List the sections"},
    {"qxctl ini list limits.ini Limits", "List the entries of a section"},
};

constexpr Example kIniGetExamples[] = {
    {"qxctl ini get limits.ini Limits high", "Print one value"},
};

}  // namespace

constinit const Command kIniListCommand = {.words = "ini list",
                                           .help = "List the sections of a file, or the entries of a section",
                                           .run = List,
                                           .parameters = {kFileParameters, kListParameters},
                                           .examples = kIniListExamples};

constinit const Command kIniGetCommand = {.words = "ini get",
                                          .help = "Print one value as a program reads it",
                                          .run = Get,
                                          .parameters = {kFileParameters, kGetParameters},
                                          .examples = kIniGetExamples};

}  // namespace qx::ctl
