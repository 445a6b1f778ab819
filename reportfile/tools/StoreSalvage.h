// Saves what can be saved of a damaged store: reads both files with distrust and writes the records that are still
// there into a new store. The source is only ever read.
//
// A record counts as saved when a slot leads to a text that ends with a line feed and has no NUL; of the header
// nothing is needed but, if it makes sense, where the ring begins. Whole lines of the data file that no slot leads to
// come after them: records whose slots are lost, and older ones that have left the ring. Records come back as readers
// see them, each up to its first line feed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace qx::report {

class ByteSource;

// Slots after these are not read: an index file may claim any number of them.
inline constexpr std::uint32_t kSalvageSlotsMax = std::uint32_t{1} << 20;

struct SalvageCounts {
  std::uint64_t indexed = 0;    // records that slots lead to, in age order
  std::uint64_t unindexed = 0;  // whole lines that no slot leads to, after them
  std::uint64_t lost = 0;       // slots that lead to no record, or to one that another slot leads to
  bool is_cut_short = false;    // more slots than kSalvageSlotsMax, or more text than the data file can really hold
};

// Gets a record without its line end; false ends the salvage.
using SalvageSink = std::function<bool(std::string_view text)>;

// Hands every record that can be saved to `sink`: first those that slots lead to, oldest first, then, if
// `with_unindexed`, whole lines that no slot leads to, in the order of the data file. What is handed over is at most
// four times the data file. Time is that of reading both files, at most 4 GiB of data; memory is 48 bytes a slot. A
// record of a megabyte takes a megabyte. [any thread]
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
// new ring has the old one's size if that makes sense, and always room for every record. The new files appear whole and
// synced, or not at all; nothing is ever replaced. [any thread]
[[nodiscard]] SalvageResult SalvageStore(const std::string& source, const std::string& target, bool with_unindexed);

}  // namespace qx::report
