// qxctl ini get|list: what a program that reads a profile file would find in it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "inifile/IniFile.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/settings/IniCommands.h"

namespace qx::ctl {

namespace {

struct Options {
  std::string file;
  std::string section;
  std::string key;
  bool json = false;
};

// The primitive with a buffer that grows until nothing was cut. A null `key` gives the list of keys, a null `section`
// that of the sections, names separated by NUL.
std::string Read(const Options& options, const char* section, const char* key) {
  std::string buffer(4096, '\0');
  for (;;) {
    const auto size = static_cast<unsigned>(buffer.size());
    const unsigned length =
        CIniFile::GetPrivateProfileString(section, key, "", buffer.data(), size, options.file.c_str());
    if (length + 2 < size) {
      buffer.resize(length);
      return buffer;
    }
    buffer.assign(buffer.size() * 2, '\0');
  }
}

std::vector<std::string> NamesIn(const std::string& list) {
  std::vector<std::string> names;
  for (std::size_t at = 0; at < list.size();) {
    const std::size_t end = std::min(list.find('\0', at), list.size());
    if (end > at) names.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  return names;
}

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

Status CheckFile(const Options& options) {
  CIniFile file;
  if (file.Open(options.file.c_str(), true)) return {};
  const int error = errno;
  if (error != ENOENT) return Status::Io("cannot open " + options.file, error);
  return {ExitCode::kNotFound, "there is no file " + options.file};
}

Status CheckSection(const Options& options) {
  if (Contains(NamesIn(Read(options, nullptr, nullptr)), options.section)) return {};
  return {ExitCode::kNotFound,
          options.file + " has no section [" + Visible(options.section) + "]; names are case-sensitive"};
}

// --- list

Status ListSections(Context& context, const Options& options) {
  const std::vector<std::string> sections = NamesIn(Read(options, nullptr, nullptr));
  if (options.json) {
    Json list = Json::array();
    for (const std::string& section : sections) {
      Json entry;
      SetText(entry, "section", section);
      list.push_back(std::move(entry));
    }
    return context.output.Document({{"file", options.file}, {"sections", std::move(list)}});
  }
  for (const std::string& section : sections) {
    if (Status status = context.output.Data("[" + Visible(section) + "]\n"); !status.IsOk()) return status;
  }
  return {};
}

// A key that stands twice is listed twice, each time with the value that a reader gets: the first one.
Status ListEntries(Context& context, const Options& options) {
  if (Status status = CheckSection(options); !status.IsOk()) return status;
  Json list = Json::array();
  for (const std::string& key : NamesIn(Read(options, options.section.c_str(), nullptr))) {
    const std::string value = Read(options, options.section.c_str(), key.c_str());
    if (options.json) {
      Json entry;
      SetText(entry, "key", key);
      SetText(entry, "value", value);
      list.push_back(std::move(entry));
    } else if (Status status = context.output.Data(Visible(key) + "=" + Visible(value) + "\n"); !status.IsOk()) {
      return status;
    }
  }
  if (!options.json) return {};
  Json document = {{"file", options.file}};
  SetText(document, "section", options.section);
  document["entries"] = std::move(list);
  return context.output.Document(document);
}

Status List(Context& context, const Options& options) {
  if (Status status = CheckFile(options); !status.IsOk()) return status;
  return options.section.empty() ? ListSections(context, options) : ListEntries(context, options);
}

// --- get

Status Get(Context& context, const Options& options) {
  if (Status status = CheckFile(options); !status.IsOk()) return status;
  if (Status status = CheckSection(options); !status.IsOk()) return status;
  const std::string value = Read(options, options.section.c_str(), options.key.c_str());
  if (value.empty() && !Contains(NamesIn(Read(options, options.section.c_str(), nullptr)), options.key)) {
    return {ExitCode::kNotFound, "the section [" + Visible(options.section) + "] has no key " + Visible(options.key)};
  }
  if (!options.json) return context.output.Data(Visible(value) + "\n");
  Json document = {{"file", options.file}};
  SetText(document, "section", options.section);
  SetText(document, "key", options.key);
  SetText(document, "value", value);
  return context.output.Document(document);
}

void AddList(CLI::App& parent, Context& context) {
  CLI::App& command = *parent.add_subcommand("list", "List the sections of a file, or the entries of a section");
  const auto options = std::make_shared<Options>();
  command.add_option("FILE", options->file, "The profile file")->required();
  command.add_option("SECTION", options->section, "List its keys and values instead of the sections");
  command.add_flag("--json", options->json, "Print as JSON");
  command.callback([&context, options] { context.run = [&context, options] { return List(context, *options); }; });
}

void AddGet(CLI::App& parent, Context& context) {
  CLI::App& command = *parent.add_subcommand("get", "Print one value as a reader gets it");
  const auto options = std::make_shared<Options>();
  command.add_option("FILE", options->file, "The profile file")->required();
  command.add_option("SECTION", options->section, "The section's name, without brackets")->required();
  command.add_option("KEY", options->key, "The key's name")->required();
  command.add_flag("--json", options->json, "Print as JSON");
  command.callback([&context, options] { context.run = [&context, options] { return Get(context, *options); }; });
}

}  // namespace

void AddIniCommand(CLI::App& app, Context& context) {
  CLI::App& ini = *app.add_subcommand("ini", "Look into a profile file, change it");
  ini.require_subcommand(1);
  AddList(ini, context);
  AddGet(ini, context);
  AddIniEditCommands(ini, context);
}

}  // namespace qx::ctl
