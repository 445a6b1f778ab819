// Salvages a damaged store: reads both files without trust in their content and writes the records that are still there
// into a new store. The source is only read.
//
// A record can be saved if a slot has the offset of a text that ends with a line feed and has no NUL. The header is
// used only to find the oldest record and new records that are not counted yet, if it is plausible. After the records
// with slots come whole lines of the data file without a slot: records whose slots are lost, and older records that
// have left the ring. Records are salvaged as readers see them, each up to its first line feed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace qx::report {

class ByteSource;

// The number of slots that are read at most: a damaged index file may have any number.
inline constexpr std::uint32_t kSalvageSlotsMax = std::uint32_t{1} << 20;

struct SalvageCounts {
  std::uint64_t indexed = 0;    // records with slots, in age order
  std::uint64_t unindexed = 0;  // whole lines without a slot, after the records with slots
  std::uint64_t lost = 0;       // slots without a record, or with the record of another slot
  bool is_cut_short = false;    // there were more slots than kSalvageSlotsMax, or more text than is passed on
};

// Gets a record without its line end; false ends the salvage.
using SalvageSink = std::function<bool(std::string_view text)>;

// Passes every record that can be saved to `sink`: first those with slots, oldest first, then, if `with_unindexed`,
// whole lines without a slot, in the order of the data file. Together they have at most four times the bytes of the
// data file and 1 MiB. It takes the time of reading both files, of the data file at most 4 GiB, and memory for the
// longest record and 48 bytes for each slot. [any thread]
[[nodiscard]] SalvageCounts SalvageRecords(ByteSource& index, ByteSource& data, bool with_unindexed,
                                           const SalvageSink& sink);

enum class SalvageState {
  kDone,
  kTargetExists,  // a file of the target exists; the target may be the source
  kNotFound,      // neither file of the source exists
  kFailed,        // a file cannot be opened, read or written
};

struct SalvageResult {
  SalvageState state = SalvageState::kDone;
  SalvageCounts counts;
  std::uint32_t ring_size = 0;  // of the new store
  int error = 0;                // kFailed: the error number ...
  std::string file;             // ... and the file; kTargetExists: the file
};

// Salvages the store at `source` (one of its files may be missing) into a new store at `target`, both base paths. The
// new ring has the size of the old one if that is plausible, and always a slot for every record. The new files are
// written whole and synced, or not made at all; no existing file is replaced. [any thread]
[[nodiscard]] SalvageResult SalvageStore(const std::string& source, const std::string& target, bool with_unindexed);

}  // namespace qx::report
