// Visits the keys of a registry tree in the order of the registry file. The module does not link this.
//
// A file can nest keys as deep as it has lines, and the paths of nested keys together grow with the square of the
// depth. So the walk stores only one path and a few bytes for each level, and it has limits that no real registry
// reaches.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "registry/RegistryNode.h"

namespace qx::registry {

struct WalkLimits {
  std::size_t depth = 1000;                        // levels below the first key
  std::size_t path_bytes = std::size_t{64} << 20;  // of all paths together
};

// A walk over one key and everything below it.
//
// Threads: one thread; no other thread changes the tree during the walk. Owns: the path.
class TreeWalk {
 public:
  TreeWalk(const CRegistryNode& first, std::string path, WalkLimits limits = {});

  // Moves to the next key; the first call moves to the first key. False at the end, or if the limit of the paths ends
  // the walk. [owning thread]
  [[nodiscard]] bool Next();

  // [owning thread]
  [[nodiscard]] const CRegistryNode& Key() const { return *levels_.back().key; }
  [[nodiscard]] const std::string& Path() const { return path_; }

  // The number of keys below the limit of depth that were not visited; what is below them is not counted. [owning
  // thread]
  [[nodiscard]] std::size_t KeysTooDeep() const { return keys_too_deep_; }
  // True if the limit of the paths has ended the walk. [owning thread]
  [[nodiscard]] bool IsCut() const { return is_cut_; }

 private:
  struct Level {
    const CRegistryNode* key;
    std::size_t next_entry;
    std::size_t path_bytes;  // of the key's path
  };

  [[nodiscard]] const StrMapEntry* NextSubkey();
  [[nodiscard]] bool Enter(const CRegistryNode& key);

  WalkLimits limits_;
  std::vector<Level> levels_;
  std::string path_;
  std::size_t path_bytes_ = 0;
  std::size_t keys_too_deep_ = 0;
  bool has_begun_ = false;
  bool is_cut_ = false;
};

}  // namespace qx::registry
