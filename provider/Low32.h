// Trace lines print addresses and thread ids with 32-bit conversions. Low32 selects the half of the 64 bits
// that they show; otherwise the calling convention would decide.
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
