// qxctl registry ls|get: the registry as a process that loads it now would see it. Nothing is ever written.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/Registry.h"
#include "registry/RegistryPaths.h"
#include "registry/RegistryValue.h"
#include "tools/qxctl/Commands.h"
#include "tools/qxctl/Text.h"

namespace qx::ctl {

namespace {

struct Options {
  std::string directory = registry::kSystemDirectory;
  std::string file;  // empty: the tree that `directory` gives
  std::string key;   // path from the root
  std::string value;
  bool recursive = false;
  bool expand = false;
  bool json = false;
};

// A value, taken out of its key.
struct Value {
  std::string name;
  int type = 0;
  std::string bytes;  // a string without its NUL, a block, or the 4 bytes of a number
};

// The content of a key, each part in the order of names.
struct KeyContent {
  std::string path;
  std::vector<Value> values;
  std::vector<std::pair<std::string, CRegistryNode*>> subkeys;
};

// --- the tree

// Says which file the tree comes from when it is not the first choice.
void TellSource(Context& context, const std::string& directory) {
  for (const char* const name : {"registry", "registry.old", "registry.default"}) {
    const std::string path = directory + "/" + name;
    CRegistryNode probe;
    const bool is_good = CRegistry::ReadTree(path.c_str(), probe);
    if (is_good && std::string_view(name) != "registry") context.output.Note("qxctl: the registry comes from " + path);
    if (is_good) return;
  }
}

// The node at which paths start, or the reason why there is none. `file_tree` lives as long as the result is used.
Status LoadTree(Context& context, const Options& options, CRegistryNode& file_tree, CRegistryNode*& root) {
  if (!options.file.empty()) {
    root = &file_tree;
    if (CRegistry::ReadTree(options.file.c_str(), file_tree)) return {};
    return {ExitCode::kNotFound, "there is no registry file " + options.file + ", or no value in it"};
  }
  registry::StartAfresh(options.directory.c_str());
  const CRegistry loads_the_tree;
  root = &CRegistry::MRoot;
  if (!CRegistry::MIsSetup) {
    return {ExitCode::kNotFound, "there is no registry in " + options.directory +
                                     " (registry, registry.old or registry.default with a value)"};
  }
  TellSource(context, options.directory);
  return {};
}

Status OpenKey(const Options& options, CRegistryNode* root, CRegistry& handle) {
  if (handle.Open(options.key.c_str(), root, 0) == 0) return {};
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
      continue;
    }
    std::string bytes(registry::StoredBytes(entry.value));
    if (registry::IsString(entry.value)) bytes.pop_back();
    content.values.push_back({entry.name, entry.value.type, std::move(bytes)});
  }
  return content;
}

// --- showing

std::int32_t NumberOf(const Value& value) {
  std::int32_t number = 0;
  std::memcpy(&number, value.bytes.data(), sizeof number);
  return number;
}

// "0a ff": as in the registry file, but for the space at the end
std::string HexOf(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    std::array<char, 4> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += digits.data();
  }
  if (!text.empty()) text.pop_back();
  return text;
}

std::string TextOf(const Value& value) {
  if (value.type == REG_DWORD) return std::to_string(NumberOf(value));
  return value.type == REG_BINARY ? HexOf(value.bytes) : Visible(value.bytes);
}

const char* NameOfType(int type) {
  constexpr std::array<const char*, 5> kNames = {"", "REG_SZ", "REG_EXPAND_SZ", "REG_BINARY", "REG_DWORD"};
  return kNames[static_cast<std::size_t>(type)];
}

// The notation of the registry file: Name=s=text, Count=d=-5, Blob=b=0a ff
std::string LineOf(const Value& value) {
  constexpr std::array<const char*, 5> kMarkers = {"", "=s=", "=es=", "=b=", "=d="};
  return Visible(value.name) + kMarkers[static_cast<std::size_t>(value.type)] + TextOf(value);
}

void SetValueJson(Json& object, const Value& value) {
  object["type"] = NameOfType(value.type);
  if (value.type == REG_DWORD) {
    object["value"] = NumberOf(value);
  } else if (value.type == REG_BINARY) {
    object["value"] = HexOf(value.bytes);
  } else {
    SetText(object, "value", value.bytes);
  }
}

Json ContentToJson(const KeyContent& content) {
  Json object;
  SetText(object, "key", content.path);
  object["values"] = Json::array();
  for (const Value& value : content.values) {
    Json entry;
    SetText(entry, "name", value.name);
    SetValueJson(entry, value);
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
  for (const Value& value : content.values) text += LineOf(value) + "\n";
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
  CRegistryNode file_tree;
  CRegistryNode* root = nullptr;
  if (Status status = LoadTree(context, options, file_tree, root); !status.IsOk()) return status;
  CRegistry handle;
  if (Status status = OpenKey(options, root, handle); !status.IsOk()) return status;
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
  if (!options.expand || value.type != REG_EXPAND_SZ) return {};
  handle.SetExpand(true);
  const unsigned char* const text = handle.GetValue(value.name.c_str());
  if (text != nullptr) value.bytes = reinterpret_cast<const char*>(text);
  return {};
}

Status Get(Context& context, const Options& options) {
  CRegistryNode file_tree;
  CRegistryNode* root = nullptr;
  if (Status status = LoadTree(context, options, file_tree, root); !status.IsOk()) return status;
  CRegistry handle;
  if (Status status = OpenKey(options, root, handle); !status.IsOk()) return status;
  Value value;
  if (Status status = ReadValue(options, handle, value); !status.IsOk()) return status;
  if (!options.json) return context.output.Data(TextOf(value) + "\n");
  Json object;
  SetText(object, "key", options.key);
  SetText(object, "name", value.name);
  SetValueJson(object, value);
  return context.output.Document(object);
}

void AddSourceOptions(CLI::App& command, Options& options) {
  CLI::Option* const directory =
      command.add_option("--directory", options.directory, "Directory of the registry's files")->capture_default_str();
  command.add_option("--file", options.file, "Read this one file instead, such as a backup")->excludes(directory);
  command.add_flag("--json", options.json, "Print as JSON");
}

void AddList(CLI::App& parent, Context& context) {
  CLI::App& command = *parent.add_subcommand("ls", "List the values and subkeys of a key");
  const auto options = std::make_shared<Options>();
  command.add_option("KEY", options->key, "Path of the key, from a hive on; without it: the root");
  command.add_flag("-r,--recursive", options->recursive, "Everything below the key as well");
  AddSourceOptions(command, *options);
  command.callback([&context, options] { context.run = [&context, options] { return List(context, *options); }; });
}

void AddGet(CLI::App& parent, Context& context) {
  CLI::App& command = *parent.add_subcommand("get", "Print one value");
  const auto options = std::make_shared<Options>();
  command.add_option("KEY", options->key, "Path of the key, from a hive on")->required();
  command.add_option("NAME", options->value, "Name of the value")->required();
  command.add_flag("--expand", options->expand, "Replace %NAME% in a REG_EXPAND_SZ from this environment");
  AddSourceOptions(command, *options);
  command.callback([&context, options] { context.run = [&context, options] { return Get(context, *options); }; });
}

}  // namespace

void AddRegistryCommand(CLI::App& app, Context& context) {
  CLI::App& registry = *app.add_subcommand("registry", "Look into the registry");
  registry.require_subcommand(1);
  AddList(registry, context);
  AddGet(registry, context);
}

}  // namespace qx::ctl
