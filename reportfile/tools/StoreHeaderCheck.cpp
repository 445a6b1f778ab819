#include "reportfile/tools/StoreHeaderCheck.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "reportfile/StoreFormat.h"
#include "reportfile/tools/FindingList.h"

namespace qx::report {

namespace {

constexpr std::int64_t kOffsetLimit = std::int64_t{1} << 32;
constexpr std::int64_t kRecordBytesMin = kLineEnd.size();

// The 32-bit count of a real report wraps less often than this.
constexpr std::uint64_t kCountWrapsMax = 4;

class HeaderCheck {
 public:
  explicit HeaderCheck(StoreScan& scan) : scan_(scan), findings_(scan.findings) {}

  void Check() {
    scan_.beyond_offsets = scan_.data_bytes > kOffsetLimit;
    CheckRing();
    if (!findings_.IsEmpty()) return;  // with such a header nothing else can be checked
    CheckPositions();
    CheckSizes();
  }

 private:
  void CheckRing() {
    const IndexHeader& header = scan_.header;
    if (header.maxRecord == 0) {
      findings_.AddHeader("header.ring-size", offsetof(IndexHeader, maxRecord), header.maxRecord,
                          "the ring has no slots");
    } else if (header.highestIndex > header.maxRecord) {
      findings_.AddHeader("header.slots-in-use", offsetof(IndexHeader, highestIndex), header.highestIndex,
                          "more slots in use than the ring has, " + std::to_string(header.maxRecord));
    } else if (header.highestIndex < header.maxRecord) {
      CheckFillingRing();
    } else {
      CheckFullRing();
    }
  }

  void CheckFillingRing() {
    const IndexHeader& header = scan_.header;
    if (header.oldestIndex != 0) {
      findings_.AddHeader("header.oldest", offsetof(IndexHeader, oldestIndex), header.oldestIndex,
                          "the oldest record of a ring that still fills is in slot 0");
    }
    if (header.elementCount != header.highestIndex) {
      findings_.AddHeader("header.count", offsetof(IndexHeader, elementCount), header.elementCount,
                          "a ring that still fills has as many slots in use as records were written, here " +
                              std::to_string(header.highestIndex));
    }
  }

  void CheckFullRing() {
    const IndexHeader& header = scan_.header;
    if (header.oldestIndex >= header.maxRecord) {
      findings_.AddHeader("header.oldest", offsetof(IndexHeader, oldestIndex), header.oldestIndex,
                          "not a slot of a ring of " + std::to_string(header.maxRecord));
      return;
    }
    for (std::uint64_t wraps = 0; wraps <= kCountWrapsMax; ++wraps) {
      const std::uint64_t written = header.elementCount + wraps * (std::uint64_t{1} << 32);
      if (written < header.maxRecord || written % header.maxRecord != header.oldestIndex) continue;
      scan_.count_wrapped = wraps > 0;
      return;
    }
    findings_.AddHeader("header.count", offsetof(IndexHeader, elementCount), header.elementCount,
                        "after so many records the oldest one is not in slot " + std::to_string(header.oldestIndex));
  }

  void CheckPositions() {
    const IndexHeader& header = scan_.header;
    if (scan_.beyond_offsets) return;  // then both positions are cut to 32 bits
    const std::uint32_t in_round = RecordsInRound(header);
    const bool is_too_low = header.writePosition < kRecordBytesMin * in_round;
    if (is_too_low || (in_round == 0 && header.writePosition != 0)) {
      findings_.AddHeader("header.write-position", offsetof(IndexHeader, writePosition), header.writePosition,
                          std::to_string(in_round) + " records were written since the data file was restarted");
    }
    const bool was_never_restarted = header.highestIndex < header.maxRecord && in_round == header.elementCount;
    if (header.fileEnd < header.writePosition || (was_never_restarted && header.fileEnd != header.writePosition)) {
      findings_.AddHeader("header.file-end", offsetof(IndexHeader, fileEnd), header.fileEnd,
                          "writePosition is " + std::to_string(header.writePosition));
    }
  }

  void CheckSizes() {
    const IndexHeader& header = scan_.header;
    const std::int64_t expected = SlotOffset(header.highestIndex);
    if (scan_.index_bytes < expected || scan_.index_bytes > SlotOffset(header.maxRecord)) {
      findings_.AddSize("index.size", StoreFile::kIndex, scan_.index_bytes,
                        std::to_string(header.highestIndex) + " slots in use end at " + std::to_string(expected));
    }
    if (scan_.data_bytes < header.fileEnd) {
      findings_.AddSize("data.size", StoreFile::kData, scan_.data_bytes,
                        "text was written up to " + std::to_string(header.fileEnd));
    }
  }

  StoreScan& scan_;
  FindingList findings_;
};

}  // namespace

void CheckHeaderAndSizes(StoreScan& scan) { HeaderCheck(scan).Check(); }

}  // namespace qx::report
