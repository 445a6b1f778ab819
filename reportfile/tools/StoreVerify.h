// Checks the two files of a report against the invariants of the store's writer.
//
// What a writer leaves follows from a few rules (docs/report-store.md). The count of records determines which slot is
// the oldest, how many records were written since the data file restarted, and so which slots have rising offsets.
// Every finding names one rule, one offset and one value; docs/operations.md lists the rules. Not findings, but
// reported as remarks: records that are just being written, records whose text longer ones have overwritten, and
// everything else that a correct writer can leave. Nothing is changed here; StoreSalvage repairs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/StoreFormat.h"

namespace qx::report {

class ByteSource;

enum class StoreFile { kIndex, kData };

// One contradiction between the files and the invariants.
struct Finding {
  std::string_view rule;    // stable: scripts rely on it
  StoreFile file;           // the file that has it
  std::int64_t offset;      // of the first byte that contradicts, in that file
  std::uint64_t value;      // what is there; a size for the rules about sizes
  std::string explanation;  // for operators

  friend bool operator==(const Finding&, const Finding&) = default;
};

// More findings than these are not searched for: a file of garbage contradicts itself everywhere.
inline constexpr std::size_t kFindingsMax = 100;

// The result of one pass over the two files.
struct StoreScan {
  IndexHeader header;  // that of a new store if the index file has none
  std::int64_t index_bytes = 0;
  std::int64_t data_bytes = 0;
  std::vector<Finding> findings;  // at most kFindingsMax

  // Remarks: nothing is wrong.
  bool record_in_flight = false;  // data or slots of the next record or batch are there, the header is not
  bool record_cut_short = false;  // a text without marker at the end: the disk was full, or the writer was killed
  bool marker_cut_short = false;  // the file ends inside the end marker
  bool count_wrapped = false;     // more than 2^32 records were written
  bool beyond_offsets = false;    // the data file is too large for 32-bit offsets: its records are not checked
  std::uint64_t overwritten_records = 0;  // indexed, but overwritten by longer newer records
  std::uint64_t cut_records = 0;          // have a line feed or a byte 0xFF, where readers end them
};

// One pass over the bytes as they are now.
//
// Costs: one read of every indexed record, and about 130 KiB of memory. If the header counts more than the files have,
// the pass ends at kFindingsMax findings. Failure: bytes that cannot be read count as missing. [any thread]
[[nodiscard]] StoreScan ScanStore(ByteSource& index, ByteSource& data);

enum class StoreState {
  kSound,
  kDamaged,     // two scans had the findings, and nothing was written between them
  kChanged,     // there were findings, but each time something was written during the scan
  kNotFound,    // neither file exists
  kUnreadable,  // a file cannot be opened or read
};

struct StoreVerdict {
  StoreState state = StoreState::kSound;
  StoreScan scan;    // the last one
  int error = 0;     // kUnreadable: the error number ...
  std::string file;  // ... and the file
};

// Scans `base_path`.ind and `base_path`.dat until the verdict is certain: after a scan without findings it is sound,
// also during writes; findings count if two scans, 20 ms apart, have them with the same header. After five scans it
// gives up with kChanged. A store with one missing file is damaged. [any thread]
[[nodiscard]] StoreVerdict VerifyStore(const std::string& base_path);

// The beginning of VerifyStore, for programs that are about to read or append to the report: the header, then the sizes
// of the files. Costs two opens and one read. On a contradiction it scans once more, 20 ms later, because a writer may
// be at work: kDamaged means that both scans saw the same. [any thread]
[[nodiscard]] StoreVerdict VerifyHeader(const std::string& base_path);

}  // namespace qx::report
