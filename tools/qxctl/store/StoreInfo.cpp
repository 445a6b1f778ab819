#include "tools/qxctl/store/StoreInfo.h"

#include "tools/qxctl/store/StoreFiles.h"

namespace qx::ctl {

using report::IndexHeader;

StoreInfo InfoOf(const std::string& path, const CReportFileBase& store) {
  return {path, store.header(), FileSize(report::IndexFileName(path)).value_or(0),
          FileSize(report::DataFileName(path)).value_or(0)};
}

const char* RingState(const StoreInfo& info) {
  const IndexHeader& header = info.header;
  if (info.index_bytes < report::SlotOffset(0)) return "unwritten";
  if (header.highestIndex > header.maxRecord || (header.oldestIndex != 0 && header.oldestIndex >= header.maxRecord)) {
    return "damaged";
  }
  if (header.highestIndex == 0) return "empty";
  return header.highestIndex < header.maxRecord ? "filling" : "full";
}

std::optional<std::uint32_t> RecordsUntilRestart(const IndexHeader& header) {
  const std::uint32_t period = report::RecordsPerRound(header);
  if (period == 0) return std::nullopt;
  return period - report::RecordsInRound(header);
}

Json ToJson(const StoreInfo& info) {
  const IndexHeader& header = info.header;
  Json document = {{"path", info.path},
                   {"ring", RingState(info)},
                   {"writePosition", header.writePosition},
                   {"fileEnd", header.fileEnd},
                   {"elementCount", header.elementCount},
                   {"maxRecord", header.maxRecord},
                   {"highestIndex", header.highestIndex},
                   {"oldestIndex", header.oldestIndex},
                   {"recordsUntilRestart", nullptr},
                   {"indexFileBytes", info.index_bytes},
                   {"dataFileBytes", info.data_bytes}};
  if (const auto records = RecordsUntilRestart(header)) document["recordsUntilRestart"] = *records;
  return document;
}

}  // namespace qx::ctl
