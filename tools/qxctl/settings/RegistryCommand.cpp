// Lists keys and values of the registry as a process that loads it now reads them.
#include "tools/qxctl/settings/RegistryCommand.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/Registry.h"
#include "registry/RegistryValue.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeWalk.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/RegistryFiles.h"
#include "tools/qxctl/settings/RegistryText.h"

namespace qx::ctl {

namespace {

struct Options {
  RegistrySource source;
  std::string key;  // path from the root
  std::string value;
  bool recursive = false;
  bool expand = false;
};

// A value, separate from its key.
struct Value {
  std::string name;
  registry::TreeValue content;
};

// The content of a key, each part in the order of names.
struct KeyContent {
  std::string path;
  std::vector<Value> values;
  std::vector<std::string> subkeys;
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
    if (registry::NodeOf(entry.value) != nullptr) {
      content.subkeys.emplace_back(entry.name);
    } else {
      content.values.push_back({entry.name, registry::ValueOf(entry.value)});
    }
  }
  return content;
}

// --- output

Json ContentToJson(const KeyContent& content) {
  Json object;
  SetText(object, "key", content.path);
  object["values"] = Json::Array();
  for (const Value& value : content.values) {
    Json entry;
    SetText(entry, "name", value.name);
    SetValueJson(entry, value.content);
    object["values"].Append(std::move(entry));
  }
  object["subkeys"] = Json::Array();
  for (const std::string& name : content.subkeys) {
    Json entry;
    SetText(entry, "name", name);
    object["subkeys"].Append(std::move(entry));
  }
  return object;
}

std::string ContentToText(const KeyContent& content, bool is_recursive) {
  std::string text = is_recursive ? (content.path.empty() ? "(root)" : Visible(content.path)) + ":\n" : "";
  for (const Value& value : content.values) text += LineOf(value.name, value.content) + "\n";
  for (const std::string& name : content.subkeys) text += "[" + Visible(name) + "]\n";
  return is_recursive ? text + "\n" : text;
}

// --- the commands

// A listing that is cut is a finding. Without a limit, a hostile file could be listed without end.
Status StatusOfWalk(const registry::TreeWalk& walk) {
  if (walk.IsCut()) {
    return {ExitCode::kFinding, "the listing is not complete: the paths take more than 64 MiB; list one key below " +
                                    Visible(walk.Path().substr(0, 200))};
  }
  if (walk.KeysTooDeep() == 0) return {};
  return {ExitCode::kFinding, "the listing is not complete: " + std::to_string(walk.KeysTooDeep()) +
                                  " key(s) at level 1001, with everything below them, are left out"};
}

// The key and, with --recursive, everything below it in the order of a registry file.
std::vector<KeyContent> KeysFrom(registry::TreeWalk& walk, bool is_recursive) {
  std::vector<KeyContent> keys;
  while (walk.Next()) {
    keys.push_back(ContentOf(walk.Path(), walk.Key()));
    if (!is_recursive) break;
  }
  return keys;
}

Json ToJson(const std::vector<KeyContent>& contents) {
  Json keys = Json::Array();
  for (const KeyContent& content : contents) keys.Append(ContentToJson(content));
  return {{"keys", std::move(keys)}};
}

std::string ToText(const std::vector<KeyContent>& contents, bool is_recursive) {
  std::string text;
  for (const KeyContent& content : contents) text += ContentToText(content, is_recursive);
  return text;
}

Status List(Context& context, const Values& values) {
  const Options options = {.source = RegistrySourceOf(values),
                           .key = values.Text("KEY"),
                           .value = {},
                           .recursive = values.Flag("--recursive")};
  CRegistryNode tree;
  if (Status status = LoadTree(context, options.source, tree); !status.IsOk()) return status;
  CRegistry handle;
  if (Status status = OpenKey(options, tree, handle); !status.IsOk()) return status;
  registry::TreeWalk walk(*handle.CurrentKey(), options.key);
  const std::vector<KeyContent> keys = KeysFrom(walk, options.recursive);
  return ShowResult(
      context, values, [&] { return ToJson(keys); }, [&] { return ToText(keys, options.recursive); },
      StatusOfWalk(walk));
}

// Reads the value through the handle, which expands variables as for every reader.
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

Json ToJson(const Options& options, const Value& value) {
  Json object;
  SetText(object, "key", options.key);
  SetText(object, "name", value.name);
  SetValueJson(object, value.content);
  return object;
}

Status Get(Context& context, const Values& values) {
  const Options options = {.source = RegistrySourceOf(values),
                           .key = values.Text("KEY"),
                           .value = values.Text("NAME"),
                           .expand = values.Flag("--expand")};
  CRegistryNode tree;
  if (Status status = LoadTree(context, options.source, tree); !status.IsOk()) return status;
  CRegistry handle;
  if (Status status = OpenKey(options, tree, handle); !status.IsOk()) return status;
  Value value;
  if (Status status = ReadValue(options, handle, value); !status.IsOk()) return status;
  return ShowResult(
      context, values, [&] { return ToJson(options, value); }, [&] { return TextOf(value.content) + "\n"; });
}

constexpr Parameter kListParameters[] = {
    {.name = "KEY",
     .kind = ValueKind::kRegistryKey,
     .help = "Path of the key, beginning with a hive; without it: the root"},
    {.name = "--recursive", .letter = "-r", .help = "List everything below the key, too"},
};

constexpr Parameter kGetParameters[] = {
    {.name = "KEY",
     .kind = ValueKind::kRegistryKey,
     .help = "Path of the key, beginning with a hive",
     .is_required = true},
    {.name = "NAME", .kind = ValueKind::kRegistryValue, .help = "Name of the value", .is_required = true},
    {.name = "--expand", .help = "Replace %NAME% in a REG_EXPAND_SZ by the environment variable NAME"},
};

constexpr Parameter kJsonParameters[] = {{.name = "--json", .help = "Print as JSON"}};

constexpr Example kRegistryLsExamples[] = {
    {"qxctl registry ls -r", "Print the whole registry"},
    {"qxctl registry ls HKEY_LOCAL_MACHINE/SOFTWARE", "Print the values and subkeys of a key"},
};

constexpr Example kRegistryGetExamples[] = {
    {"qxctl registry get 'HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor/Management/Server Control/Setup' ReportRoot",
     "Print the report directory"},
};

}  // namespace

constinit const Command kRegistryLsCommand = {.words = "registry ls",
                                              .help = "List the values and subkeys of a key",
                                              .run = List,
                                              .parameters = {kListParameters, kRegistryParameters, kJsonParameters},
                                              .examples = kRegistryLsExamples};

constinit const Command kRegistryGetCommand = {.words = "registry get",
                                               .help = "Print one value",
                                               .run = Get,
                                               .parameters = {kGetParameters, kRegistryParameters, kJsonParameters},
                                               .examples = kRegistryGetExamples};

}  // namespace qx::ctl
