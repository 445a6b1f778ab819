// Two registry trees side by side, and whether a tree survives being written and read: for tools. The module does not
// link it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "registry/RegistryNode.h"

namespace qx::registry {

// An entry's content, taken out of its key. Entries without a value are not there for any of this.
struct TreeValue {
  std::int32_t type = 0;
  std::string bytes;  // a string without its NUL, a block's bytes, a number's 4 bytes in host order; none for a subkey

  bool operator==(const TreeValue&) const = default;
};

[[nodiscard]] TreeValue ValueOf(const RegistryValue& value);

// One name of one key, where the trees differ. A subkey that one of them lacks is followed by what is in it.
struct TreeChange {
  std::string key;  // its path, names joined by "/"; empty: the root
  std::string name;
  std::optional<TreeValue> before;
  std::optional<TreeValue> after;
};

struct TreeDifference {
  std::vector<TreeChange> changes;  // keys in the order of a registry file; in each the values, then the subkeys
  bool is_complete = true;          // false: there are more changes than were to be listed
};

struct DiffLimits {
  std::size_t changes = 100'000;
  std::size_t bytes = std::size_t{16} << 20;  // of all paths: a deep tree could ask for any amount
};

// No other thread may use the trees meanwhile. Does not recurse. [owning thread]
[[nodiscard]] TreeDifference Compare(const CRegistryNode& before, const CRegistryNode& after, DiffLimits limits = {});

// Reads a registry file's bytes into `tree`, as a load does; true if a load would succeed. [owning thread]
[[nodiscard]] bool ParseTree(std::string_view bytes, CRegistryNode& tree);

// Why a registry file cannot hold a tree.
struct Refusal {
  std::string key;  // path of the key that is in the way; empty: the root, or the whole tree
  std::string name;
  std::string reason;  // a clause: "the name holds a \"=\""
};

// Nothing if `tree`, written and read again, is the same tree and would stay so whatever is added to it; `text` is then
// the file. [owning thread]
[[nodiscard]] std::optional<Refusal> WhyNotStorable(const CRegistryNode& tree, std::string& text);

}  // namespace qx::registry
