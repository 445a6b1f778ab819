// Checks and salvages a report with arbitrary index and data bytes. Both must end and stay in their bounds, and the
// salvaged records must make a sound store.
//
// Input: one byte n, then n bytes of the index file (or all bytes that follow, if these are fewer), then the data file.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/Require.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/StoreSalvage.h"
#include "reportfile/tools/StoreVerify.h"

namespace {

using qx::fuzz::Require;
using qx::report::IndexHeader;
using qx::report::MemoryBytes;
using qx::report::SalvageCounts;
using qx::report::StoreScan;

std::vector<std::string> Salvage(std::string_view index, std::string_view data, bool with_unindexed) {
  MemoryBytes index_bytes(index);
  MemoryBytes data_bytes(data);
  std::vector<std::string> texts;
  std::size_t bytes = 0;
  const SalvageCounts counts =
      qx::report::SalvageRecords(index_bytes, data_bytes, with_unindexed, [&](std::string_view text) {
        Require(text.find_first_of(std::string_view("\n\0", 2)) == std::string_view::npos, "not a record's text");
        bytes += text.size();
        texts.emplace_back(text);
        return true;
      });
  Require(texts.size() == counts.indexed + counts.unindexed, "the counts do not add up");
  Require(counts.indexed + counts.lost <= index.size() / sizeof(std::uint32_t), "more records than slots");
  Require(bytes <= 4 * data.size() + (1U << 20), "more text than was promised");
  return texts;
}

// Makes the store that a writer would make of these texts, in memory, and requires that it is sound.
void RequireSound(const std::vector<std::string>& texts) {
  IndexHeader header = {.maxRecord = static_cast<std::uint32_t>(std::max<std::size_t>(texts.size(), 1))};
  std::string slots;
  std::string data;
  for (const std::string& text : texts) {
    slots.append(reinterpret_cast<const char*>(&header.writePosition), sizeof header.writePosition);
    data += text + std::string(qx::report::kLineEnd);
    header.writePosition = header.fileEnd = static_cast<std::uint32_t>(data.size());
    ++header.highestIndex;
    ++header.elementCount;
  }
  if (!texts.empty()) data += qx::report::kEndMarker;
  const std::string index = std::string(reinterpret_cast<const char*>(&header), sizeof header) + slots;
  MemoryBytes index_bytes(index);
  MemoryBytes data_bytes(data);
  Require(qx::report::ScanStore(index_bytes, data_bytes).findings.empty(), "the salvaged store is not sound");
  Require(Salvage(index, data, true) == texts, "the salvaged store does not salvage to itself");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t index_size = std::min<std::size_t>(data[0], rest.size());
  const std::string_view index = rest.substr(0, index_size);
  const std::string_view texts = rest.substr(index_size);

  MemoryBytes index_bytes(index);
  MemoryBytes data_bytes(texts);
  const StoreScan scan = qx::report::ScanStore(index_bytes, data_bytes);
  Require(scan.findings.size() <= qx::report::kFindingsMax, "too many findings");
  Require(scan.overwritten_records + scan.cut_records <= 2 * std::uint64_t{scan.header.highestIndex},
          "more remarks than records");
  const std::vector<std::string> all = Salvage(index, texts, true);
  const std::vector<std::string> indexed = Salvage(index, texts, false);
  Require(indexed.size() <= all.size() && std::equal(indexed.begin(), indexed.end(), all.begin()),
          "indexed records do not come first");
  RequireSound(all);
  return 0;
}
