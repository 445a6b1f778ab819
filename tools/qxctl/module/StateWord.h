// The state word that the module keeps with a service thread, read from outside.
#pragma once

#include <cstdint>
#include <optional>

namespace qx::ctl {

// The second 32-bit word of what element 1 points at: the number of report calls since the transfer began. Nothing
// without data, or when no readable memory is there: what a foreign module keeps need not look like ours.
// [any thread]
[[nodiscard]] std::optional<std::uint32_t> StateWordOf(const void* provider_data);

}  // namespace qx::ctl
