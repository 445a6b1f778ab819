// Measures the resources of this process: memory, descriptors, mapped files.
#pragma once

#include <cstddef>
#include <string>

namespace qx::ctl {

struct MemoryFigures {
  std::size_t resident_bytes = 0;  // 0: /proc cannot be read
  std::size_t in_use_bytes = 0;    // allocated and not freed, in all arenas
};

// [any thread]
MemoryFigures ReadMemoryFigures();

// Open descriptors of the process; 0 if /proc cannot be read. [any thread]
std::size_t OpenDescriptors();

// Whether any part of the file at `path` is mapped into the process; after dlclose, no part of a library should be.
// [any thread]
bool IsMapped(const std::string& path);

}  // namespace qx::ctl
