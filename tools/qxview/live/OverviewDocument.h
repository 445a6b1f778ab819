// Writes the overview: for each report a row of qxctl top, with what is wrong about it, the worst first.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxctl/top/TopReports.h"

namespace qx::view {

struct OverviewView {
  std::string directory;
  std::int64_t stale_seconds = 0;
  std::int64_t time_ms = 0;
  std::string cursor;
  std::string only;  // a report, the only one that is listed; empty: all
};

// Seconds since the newest record, if it is older than `stale_seconds`; else unset.
[[nodiscard]] std::optional<std::int64_t> SilenceOf(const ctl::TopRow& row, std::int64_t stale_seconds);

// Seconds, at the current rate, until the ring is full, so that new records begin to replace old ones. For a full ring:
// until all its present records are replaced. Unset without a rate.
[[nodiscard]] std::optional<double> SecondsToWrap(const ctl::TopRow& row);

// The document qxview-overview.
[[nodiscard]] ctl::Json OverviewDocument(const ctl::TopReports& reports, const OverviewView& view);

// The overview without the values that change from second to second, to compare two overviews.
[[nodiscard]] std::string OverviewContent(const ctl::TopReports& reports, const OverviewView& view);

}  // namespace qx::view
