#include "tools/qxctl/module/StateWord.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

namespace qx::ctl {

namespace {

constexpr std::size_t kStateWordOffset = 4;  // after the thread's number

}  // namespace

// The kernel reads the memory: for an invalid address it returns EFAULT, where a read of this process would end it.
std::optional<std::uint32_t> StateWordOf(const void* provider_data) {
  if (provider_data == nullptr) return std::nullopt;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  std::uint32_t word = 0;
  const void* const address = static_cast<const char*>(provider_data) + kStateWordOffset;
  const bool is_read = write(ends[1], address, sizeof word) == static_cast<ssize_t>(sizeof word) &&
                       read(ends[0], &word, sizeof word) == static_cast<ssize_t>(sizeof word);
  (void)close(ends[0]);
  (void)close(ends[1]);
  return is_read ? std::optional(word) : std::nullopt;
}

}  // namespace qx::ctl
