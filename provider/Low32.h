// Low32 returns the low half of an address or a thread id, for trace lines with 32-bit conversions. If such a line got
// all 64 bits, the calling convention would decide which half it shows.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace qx::provider {

// 0x00007F0012345678 => 0x12345678
[[nodiscard]] constexpr std::uint32_t Low32(std::uint64_t bits) noexcept { return static_cast<std::uint32_t>(bits); }

[[nodiscard]] inline std::uint32_t Low32(const void* address) noexcept {
  return Low32(reinterpret_cast<std::uintptr_t>(address));
}

// The calling thread's identifier as the thread data and the trace keep it.
[[nodiscard]] inline std::uint32_t CurrentThreadLow32() noexcept {
  return Low32(static_cast<std::uint64_t>(pthread_self()));
}

}  // namespace qx::provider
