// For tools: compares two registry trees, and checks that a tree can be written to a file and read back. The module
// does not link this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "registry/RegistryNode.h"

namespace qx::registry {

// A copy of an entry's content. Entries without a value are ignored here.
struct TreeValue {
  std::int32_t type = 0;
  std::string bytes;  // a string without its NUL, a block's bytes, a number's 4 bytes in host order; empty for a subkey

  bool operator==(const TreeValue&) const = default;
};

[[nodiscard]] TreeValue ValueOf(const RegistryValue& value);

// One entry of one key that differs between the trees. If only one tree has a subkey, the changes also contain the
// content of the subkey.
struct TreeChange {
  std::string key;  // the path of the key, names joined by "/"; empty: the root
  std::string name;
  std::optional<TreeValue> before;
  std::optional<TreeValue> after;
};

struct TreeDifference {
  std::vector<TreeChange> changes;  // keys in the order of a registry file; in each key the values before the subkeys
  bool is_complete = true;          // false: there are more changes than the limit
};

struct DiffLimits {
  std::size_t changes = 100'000;
  std::size_t bytes = std::size_t{16} << 20;  // of all paths together; in a deep tree these could be very long
};

// Compares the trees without recursion. No other thread may use the trees during the call. [owning thread]
[[nodiscard]] TreeDifference Compare(const CRegistryNode& before, const CRegistryNode& after, DiffLimits limits = {});

// Reads a registry file's bytes into `tree`, as a load does; true if a load would succeed. [owning thread]
[[nodiscard]] bool ParseTree(std::string_view bytes, CRegistryNode& tree);

// The reason why a registry file cannot store a tree.
struct Refusal {
  std::string key;  // path of the key with the entry that cannot be stored; empty: the root, or the whole tree
  std::string name;
  std::string reason;  // a clause: "the name has a \"=\""
};

// Returns nothing if `tree` can be written to a file and read back unchanged, even after entries are added to it;
// `text` is then the content of the file. [owning thread]
[[nodiscard]] std::optional<Refusal> WhyNotStorable(const CRegistryNode& tree, std::string& text);

}  // namespace qx::registry
