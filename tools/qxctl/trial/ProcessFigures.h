// What this process holds at the moment: memory, descriptors, mapped files.
#pragma once

#include <cstddef>
#include <string>

namespace qx::ctl {

struct MemoryFigures {
  std::size_t resident_bytes = 0;  // 0: /proc does not tell
  std::size_t in_use_bytes = 0;    // handed out by the allocator and not freed, in all its arenas
};

// [any thread]
MemoryFigures ReadMemoryFigures();

// Open descriptors of the process; 0 when /proc does not tell. [any thread]
std::size_t OpenDescriptors();

// Whether anything of the file at `path` is mapped into the process, for a library what dlclose should have undone.
// [any thread]
bool IsMapped(const std::string& path);

}  // namespace qx::ctl
