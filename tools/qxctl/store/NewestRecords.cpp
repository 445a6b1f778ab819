#include "tools/qxctl/store/NewestRecords.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kRecordBytesMax = std::size_t{64} << 10;

}  // namespace

std::vector<std::string> NewestRecords(const std::string& base_path, std::uint32_t count) {
  std::vector<std::string> records;
  CReportFileBase store;
  if (!store.OpenRead(base_path.c_str()) || !report::HasPlausibleRing(store.header())) return records;
  const report::IndexHeader& header = store.header();
  report::RecordReader reader(store);
  for (std::uint32_t age = header.highestIndex - std::min(count, header.highestIndex); age < header.highestIndex;
       ++age) {
    std::string record;
    bool is_too_long = false;
    const bool is_read = reader.Read(report::SlotOfAge(header, age), kRecordBytesMax, &record, &is_too_long);
    if (is_read && !is_too_long) records.push_back(std::move(record));
  }
  return records;
}

}  // namespace qx::ctl
