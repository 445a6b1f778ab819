// qxctl registry: the registry as a process that loads it now would see it. Here is what only looks; what changes it
// and what compares it have files of their own.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/Registry.h"
#include "registry/RegistryValue.h"
#include "registry/tools/TreeDiff.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/settings/RegistryCommands.h"
#include "tools/qxctl/settings/RegistryText.h"
#include "tools/qxctl/settings/Settings.h"

namespace qx::ctl {

namespace {

struct Options {
  RegistrySource source;
  std::string key;  // path from the root
  std::string value;
  bool recursive = false;
  bool expand = false;
  bool json = false;
};

// A value, taken out of its key.
struct Value {
  std::string name;
  registry::TreeValue content;
};

// The content of a key, each part in the order of names.
struct KeyContent {
  std::string path;
  std::vector<Value> values;
  std::vector<std::pair<std::string, CRegistryNode*>> subkeys;
};

// --- the tree

Status OpenKey(const Options& options, CRegistryNode& tree, CRegistry& handle) {
  if (handle.Open(options.key.c_str(), &tree, 0) == 0) return {};
  return {ExitCode::kNotFound,
          "there is no key " + Visible(options.key) + "; paths begin with a hive, such as HKEY_LOCAL_MACHINE/SOFTWARE"};
}

KeyContent ContentOf(std::string path, const CRegistryNode& node) {
  KeyContent content{std::move(path), {}, {}};
  const qx::LockScope lock(node.Lock());
  for (const StrMapEntry& entry : node.Entries()) {
    if (entry.name == nullptr || !entry.value.IsPresent()) continue;
    if (CRegistryNode* const subkey = registry::NodeOf(entry.value); subkey != nullptr) {
      content.subkeys.emplace_back(entry.name, subkey);
    } else {
      content.values.push_back({entry.name, registry::ValueOf(entry.value)});
    }
  }
  return content;
}

// --- showing

Json ContentToJson(const KeyContent& content) {
  Json object;
  SetText(object, "key", content.path);
  object["values"] = Json::array();
  for (const Value& value : content.values) {
    Json entry;
    SetText(entry, "name", value.name);
    SetValueJson(entry, value.content);
    object["values"].push_back(std::move(entry));
  }
  object["subkeys"] = Json::array();
  for (const auto& [name, node] : content.subkeys) {
    Json entry;
    SetText(entry, "name", name);
    object["subkeys"].push_back(std::move(entry));
  }
  return object;
}

Status PrintContent(Context& context, const KeyContent& content, const Options& options) {
  std::string text = options.recursive ? (content.path.empty() ? "(root)" : Visible(content.path)) + ":\n" : "";
  for (const Value& value : content.values) text += LineOf(value.name, value.content) + "\n";
  for (const auto& [name, node] : content.subkeys) text += "[" + Visible(name) + "]\n";
  return context.output.Data(options.recursive ? text + "\n" : text);
}

// --- the commands

// Visits the key and, with --recursive, everything below it in the order of a registry file.
Status ListFrom(Context& context, const Options& options, const CRegistryNode& start) {
  Json keys = Json::array();
  std::vector<std::pair<std::string, const CRegistryNode*>> pending = {{options.key, &start}};
  while (!pending.empty()) {
    auto [path, node] = std::move(pending.back());
    pending.pop_back();
    const KeyContent content = ContentOf(std::move(path), *node);
    if (options.json) {
      keys.push_back(ContentToJson(content));
    } else if (Status status = PrintContent(context, content, options); !status.IsOk()) {
      return status;
    }
    if (!options.recursive) break;
    const std::string prefix = content.path.empty() || content.path.ends_with('/') ? content.path : content.path + "/";
    for (auto subkey = content.subkeys.rbegin(); subkey != content.subkeys.rend(); ++subkey) {
      pending.emplace_back(prefix + subkey->first, subkey->second);
    }
  }
  return options.json ? context.output.Document({{"keys", std::move(keys)}}) : Status();
}

Status List(Context& context, const Options& options) {
  CRegistryNode tree;
  if (Status status = LoadTree(context, options.source, tree); !status.IsOk()) return status;
  CRegistry handle;
  if (Status status = OpenKey(options, tree, handle); !status.IsOk()) return status;
  return ListFrom(context, options, *handle.CurrentKey());
}

// An expansion is done by the handle, as it does it for every reader.
Status ReadValue(const Options& options, CRegistry& handle, Value& value) {
  const KeyContent content = ContentOf(options.key, *handle.CurrentKey());
  const auto found = std::find_if(content.values.begin(), content.values.end(),
                                  [&](const Value& each) { return each.name == options.value; });
  if (found == content.values.end()) {
    return {ExitCode::kNotFound, "the key " + Visible(options.key) + " has no value " + Visible(options.value)};
  }
  value = *found;
  if (!options.expand || value.content.type != REG_EXPAND_SZ) return {};
  handle.SetExpand(true);
  const unsigned char* const text = handle.GetValue(value.name.c_str());
  if (text != nullptr) value.content.bytes = reinterpret_cast<const char*>(text);
  return {};
}

Status Get(Context& context, const Options& options) {
  CRegistryNode tree;
  if (Status status = LoadTree(context, options.source, tree); !status.IsOk()) return status;
  CRegistry handle;
  if (Status status = OpenKey(options, tree, handle); !status.IsOk()) return status;
  Value value;
  if (Status status = ReadValue(options, handle, value); !status.IsOk()) return status;
  if (!options.json) return context.output.Data(TextOf(value.content) + "\n");
  Json object;
  SetText(object, "key", options.key);
  SetText(object, "name", value.name);
  SetValueJson(object, value.content);
  return context.output.Document(object);
}

void AddList(CLI::App& parent, Context& context) {
  CLI::App& command = *parent.add_subcommand("ls", "List the values and subkeys of a key");
  const auto options = std::make_shared<Options>();
  command.add_option("KEY", options->key, "Path of the key, from a hive on; without it: the root");
  command.add_flag("-r,--recursive", options->recursive, "Everything below the key as well");
  AddSourceOptions(command, options->source);
  command.add_flag("--json", options->json, "Print as JSON");
  command.callback([&context, options] { context.run = [&context, options] { return List(context, *options); }; });
}

void AddGet(CLI::App& parent, Context& context) {
  CLI::App& command = *parent.add_subcommand("get", "Print one value");
  const auto options = std::make_shared<Options>();
  command.add_option("KEY", options->key, "Path of the key, from a hive on")->required();
  command.add_option("NAME", options->value, "Name of the value")->required();
  command.add_flag("--expand", options->expand, "Replace %NAME% in a REG_EXPAND_SZ from this environment");
  AddSourceOptions(command, options->source);
  command.add_flag("--json", options->json, "Print as JSON");
  command.callback([&context, options] { context.run = [&context, options] { return Get(context, *options); }; });
}

}  // namespace

void AddSourceOptions(CLI::App& command, RegistrySource& source) {
  CLI::Option* const directory =
      command.add_option("--directory", source.directory, "Directory of the registry's files")
          ->capture_default_str()
          ->type_name("DIR");
  command.add_option("--file", source.file, "Use this one file instead, such as a backup")
      ->excludes(directory)
      ->type_name("FILE");
}

Status LoadTree(Context& context, const RegistrySource& source, CRegistryNode& tree) {
  if (!source.file.empty()) {
    if (CRegistry::ReadTree(source.file.c_str(), tree)) return {};
    return {ExitCode::kNotFound, "there is no registry file " + source.file + ", or no value in it"};
  }
  for (const char* const name : {"registry", "registry.old", "registry.default"}) {
    const std::string path = source.directory + "/" + name;
    const bool is_good = CRegistry::ReadTree(path.c_str(), tree);
    if (is_good && std::string_view(name) != "registry") context.output.Note("qxctl: the registry comes from " + path);
    if (is_good) return {};
  }
  return {ExitCode::kNotFound,
          "there is no registry in " + source.directory + " (registry, registry.old or registry.default with a value)"};
}

Status ReadTreeFile(const std::string& file, CRegistryNode& tree, std::string& bytes) {
  if (file == "-") {
    if (Status status = ReadArgument("@-", bytes); !status.IsOk()) return status;
  } else {
    FileImage image;
    if (Status status = StatusOfEdit(ReadFileImage(file, image)); !status.IsOk()) return status;
    bytes = std::move(image.bytes);
  }
  if (registry::ParseTree(bytes, tree)) return {};
  return {ExitCode::kRefused,
          (file == "-" ? "standard input" : file) + " is no registry file: there is no value in it"};
}

void AddRegistryCommand(CLI::App& app, Context& context) {
  CLI::App& registry = *app.add_subcommand("registry", "Look into the registry, check it, change it");
  registry.require_subcommand(1);
  AddList(registry, context);
  AddGet(registry, context);
  AddRegistryEditCommands(registry, context);
  AddRegistryCheckCommands(registry, context);
}

}  // namespace qx::ctl
