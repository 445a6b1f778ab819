// The header and the sizes of a report's files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

struct StoreInfo {
  std::string path;
  report::IndexHeader header;
  std::int64_t index_bytes;
  std::int64_t data_bytes;
};

// The header and the sizes of an open store.
[[nodiscard]] StoreInfo InfoOf(const std::string& path, const CReportFileBase& store);

// "unwritten", "empty", "filling", "full", "damaged". Unwritten: an agent has created the store but not appended to it;
// the ring size is not in the file yet.
[[nodiscard]] const char* RingState(const StoreInfo& info);

// The number of records that can be appended before the data file starts over; unset: never.
[[nodiscard]] std::optional<std::uint32_t> RecordsUntilRestart(const report::IndexHeader& header);

[[nodiscard]] Json ToJson(const StoreInfo& info);

}  // namespace qx::ctl
