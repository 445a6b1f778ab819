// Internal: where the registry's files are.
//
// The directory is fixed for programs of the system. Only tests, and tools that read a copy of the registry, set
// another one.
#pragma once

namespace qx::registry {

inline constexpr const char* kSystemDirectory = "/etc/brollan";

// For tests and tools: uses `directory` (which must outlive the use; null: the system's) for the files and drops the
// tree and its state, as if the module had just been loaded. No handle may exist. [owning thread]
void ResetRegistry(const char* directory);

}  // namespace qx::registry
