// Reads the state word that the module keeps for a service thread.
#pragma once

#include <cstdint>
#include <optional>

namespace qx::ctl {

// The second 32-bit word of the data of element 1: the number of report calls since the transfer began. Unset if
// `provider_data` is null or its memory cannot be read: the data of another module may have another layout. [any
// thread]
[[nodiscard]] std::optional<std::uint32_t> StateWordOf(const void* provider_data);

}  // namespace qx::ctl
