// The oracle of RecordReader::Take: its result, record by record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"

namespace qx::test {

// Take in its plainest form, with one readLine for each slot.
inline report::TakenRecords TakeOneByOne(CReportFileBase& store, std::uint32_t first, std::uint32_t count_max,
                                         std::size_t gathered_max, std::string* out) {
  for (std::uint32_t taken = 0; taken < count_max; ++taken) {
    std::string text;
    const std::uint64_t slot = std::uint64_t{first} + taken;
    if (slot > 0xFFFFFFFF || !store.readLine(text, static_cast<std::uint32_t>(slot))) {
      return {taken, report::TakeEnd::kReadFailed};
    }
    if (out->size() + text.size() >= gathered_max) return {taken, report::TakeEnd::kChunkFull};
    *out += text;
  }
  return {count_max, report::TakeEnd::kCountReached};
}

}  // namespace qx::test
