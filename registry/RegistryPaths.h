// Internal: sets the directory of the registry's files.
//
// The directory is fixed for programs of the system. Only tests, and tools that read a copy of the registry, set
// another one.
#pragma once

namespace qx::registry {

inline constexpr const char* kSystemDirectory = "/etc/brollan";

// For tests and tools: makes `directory` the directory of the files (null: that of the system), and drops the tree and
// its state, as if the module had just been loaded. The text must live as long as the registry is used. No handle may
// exist. [owning thread]
void ResetRegistry(const char* directory);

}  // namespace qx::registry
