#include "tools/qxctl/trial/ProcessFigures.h"

#include <malloc.h>

#include <filesystem>
#include <iterator>
#include <sstream>

#include "base/tools/FileText.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kBytesPerKilobyte = 1024;

std::size_t ResidentBytes() {
  std::istringstream status(file::TextOf("/proc/self/status"));
  for (std::string word; status >> word;) {
    if (word != "VmRSS:") continue;
    std::size_t kilobytes = 0;
    status >> kilobytes;
    return kilobytes * kBytesPerKilobyte;
  }
  return 0;
}

std::size_t AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace

MemoryFigures ReadMemoryFigures() {
  MemoryFigures figures;
  figures.in_use_bytes = AllocatedBytes();  // first: reading the other figure allocates
  figures.resident_bytes = ResidentBytes();
  return figures;
}

std::size_t OpenDescriptors() {
  std::error_code error;
  const auto count = std::distance(std::filesystem::directory_iterator("/proc/self/fd", error), {});
  return count > 0 ? static_cast<std::size_t>(count) - 1 : 0;  // without the one that reads the directory
}

bool IsMapped(const std::string& path) {
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::canonical(path, error);
  const std::string mapped_file = error ? path : canonical.string();
  std::istringstream maps(file::TextOf("/proc/self/maps"));
  for (std::string line; std::getline(maps, line);) {
    if (line.ends_with(" " + mapped_file)) return true;
  }
  return false;
}

}  // namespace qx::ctl
