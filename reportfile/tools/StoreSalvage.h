// Salvages a damaged store: reads both files without trust in their content and writes the records that are still there
// into a new store. The source is only read.
//
// A record can be saved if a slot has the offset of a text that ends with a line feed and has no NUL. The header only
// shows where the ring starts, if that is plausible. Whole lines of the data file without a slot come after them:
// records whose slots are lost, and older ones that have left the ring. Records are salvaged as readers see them, each
// up to its first line feed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace qx::report {

class ByteSource;

// Further slots are not read: a damaged index file may count any number of them.
inline constexpr std::uint32_t kSalvageSlotsMax = std::uint32_t{1} << 20;

struct SalvageCounts {
  std::uint64_t indexed = 0;    // records with slots, in age order
  std::uint64_t unindexed = 0;  // whole lines without a slot, after them
  std::uint64_t lost = 0;       // slots without a record, or with that of another slot
  bool is_cut_short = false;    // more slots than kSalvageSlotsMax, or more text than the data file can have
};

// Gets a record without its line end; false ends the salvage.
using SalvageSink = std::function<bool(std::string_view text)>;

// Passes every record that can be saved to `sink`: first those with slots, oldest first, then, if `with_unindexed`,
// whole lines without a slot, in the order of the data file. Together they have at most four times the bytes of the
// data file. Time is that of reading both files, at most 4 GiB of data; memory is 48 bytes for each slot, and the size
// of the longest record. [any thread]
[[nodiscard]] SalvageCounts SalvageRecords(ByteSource& index, ByteSource& data, bool with_unindexed,
                                           const SalvageSink& sink);

enum class SalvageState {
  kDone,
  kTargetExists,  // either file of the target, which may be the source
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
// new ring has the old one's size if that is plausible, and always slots for every record. The new files are written
// whole and synced, or not at all; no file is replaced. [any thread]
[[nodiscard]] SalvageResult SalvageStore(const std::string& source, const std::string& target, bool with_unindexed);

}  // namespace qx::report
