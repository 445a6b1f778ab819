// Writes the documents about one report.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxview/report/RecordTail.h"
#include "tools/qxview/report/ReportIndex.h"

namespace qx::view {

// Whether a record is shown: its text contains the filter. ASCII letters are compared without case; an empty filter
// shows all.
[[nodiscard]] bool Shows(std::string_view filter, std::string_view text);

// The document qxview-records. A record without a stamp has the time of the one before it, if that is in the page.
[[nodiscard]] ctl::Json RecordsDocument(const std::string& report, const RecordPage& page, std::string_view filter);
// The time of the last record of the page, or of the one before it that has a stamp.
[[nodiscard]] std::optional<std::int64_t> TimeAfter(const RecordPage& page);
// The document qxview-chart.
[[nodiscard]] ctl::Json ChartDocument(const std::string& report, const std::vector<std::string>& fields,
                                      const Chart& chart);
// The document qxview-fields: the fields with numbers, in the order of the newest record that has one.
[[nodiscard]] ctl::Json FieldsDocument(const std::string& report, const RecordPage& page);

}  // namespace qx::view
