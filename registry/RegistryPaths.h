// Internal: where the registry's files are.
//
// The directory is fixed for users of the system. Tests of every folder that reads the registry, and tools that read
// a copy of it, point it elsewhere.
#pragma once

namespace qx::registry {

inline constexpr const char* kSystemDirectory = "/etc/brollan";

// For tests and tools: takes `directory` (which must live on; null: the system's) as the place of the files and forgets
// the tree and its state, as if the module had just been loaded. No handle may exist. [owning thread]
void StartAfresh(const char* directory);

}  // namespace qx::registry
