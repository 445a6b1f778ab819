// Reads the newest records of a report from its files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qx::ctl {

// At most `count` records with their line ends, the oldest first. Records of over 64 KiB are left out. Empty for a
// report that cannot be read or whose header is damaged.
[[nodiscard]] std::vector<std::string> NewestRecords(const std::string& base_path, std::uint32_t count);

}  // namespace qx::ctl
