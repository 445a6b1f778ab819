// Checks the two files of a report against the invariants of the store's writer.
//
// A writer follows a few rules (docs/report-store.md). So the count of records determines which slot is the oldest, how
// many records were written since the data file restarted, and which slots have rising offsets. Every finding names one
// rule, one offset and one value; docs/operations.md lists the rules. Some states that a correct writer can leave are
// remarks, not findings: for example a record that is just being written, or a record whose text longer ones have
// overwritten. Nothing is changed here; StoreSalvage.h repairs.
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
  std::int64_t offset;      // of the first contradicting byte in that file
  std::uint64_t value;      // what is there; a size for the rules about sizes
  std::string explanation;  // for operators

  friend bool operator==(const Finding&, const Finding&) = default;
};

// The search ends after this number of findings: a file of random bytes has contradictions everywhere.
inline constexpr std::size_t kFindingsMax = 100;

// The result of one pass over the two files.
struct StoreScan {
  IndexHeader header;  // that of a new store if the index file has none
  std::int64_t index_bytes = 0;
  std::int64_t data_bytes = 0;
  std::vector<Finding> findings;  // at most kFindingsMax

  // Remarks: states that are no damage.
  bool record_in_flight = false;  // texts or slots of the next records are written, but not counted in the header
  bool record_cut_short = false;  // a text without marker at the end: the disk was full, or the writer was killed
  bool marker_cut_short = false;  // the file ends inside the end marker
  bool count_wrapped = false;     // more than 2^32 records were written
  bool beyond_offsets = false;    // the data file is too large for 32-bit offsets: its records are not checked
  std::uint64_t overwritten_records = 0;  // texts that slots lead to, but that newer records may have overwritten
  std::uint64_t cut_records = 0;          // have a line feed or a byte 0xFF inside, where readers end them
};

// Checks the bytes of both files in one pass.
//
// Costs: one read of every indexed record, and about 130 KiB of memory. The pass ends at kFindingsMax findings, so a
// header with a huge count costs no more. Failure: bytes that cannot be read count as missing. [any thread]
[[nodiscard]] StoreScan ScanStore(ByteSource& index, ByteSource& data);

enum class StoreState {
  kSound,
  kDamaged,     // two scans had the findings, and nothing was written between them
  kChanged,     // there were findings, but the files changed from each scan to the next
  kNotFound,    // neither file exists
  kUnreadable,  // a file cannot be opened or read
};

struct StoreVerdict {
  StoreState state = StoreState::kSound;
  StoreScan scan;    // the last one
  int error = 0;     // kUnreadable: the error number ...
  std::string file;  // ... and the file
};

// Scans `base_path`.ind and `base_path`.dat until the verdict is certain: one scan without findings is enough for
// kSound, even while a writer writes. Findings mean kDamaged if two scans, 20 ms apart, have the same findings, header
// and sizes. After five scans without one of these results the verdict is kChanged. A store with one missing file is
// kDamaged. [any thread]
[[nodiscard]] StoreVerdict VerifyStore(const std::string& base_path);

// Checks only the header and the sizes of the files, for programs that are about to read the report or append to it.
// Costs two opens and one read. After a scan with findings it scans once more, 20 ms later, because a writer may be at
// work: kDamaged means that both scans had the same findings. [any thread]
[[nodiscard]] StoreVerdict VerifyHeader(const std::string& base_path);

}  // namespace qx::report
