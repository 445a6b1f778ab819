// Reads the newest records of a report: those after a cursor, or the last ones. It reads no other records.
//
// Those who follow a report call HasMoved first, which costs two system calls.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "tools/qxview/report/Cursor.h"

namespace qx::view {

// A record as the store has it, with its line end.
struct NumberedRecord {
  std::uint64_t number = 0;
  std::string text;
};

struct RecordPage {
  int error = 0;                                 // of the system; EBADMSG for files that contradict themselves
  Cursor cursor;                                 // after the last record of the report
  bool is_reset = false;                         // the records do not continue after the cursor
  std::uint64_t lost = 0;                        // records after the cursor that the ring has overwritten
  std::optional<std::int64_t> time_before = {};  // of the record before the first one, if it is known
  std::uint64_t omitted = 0;                     // records of the ring that are left out because of the limits
  std::vector<NumberedRecord> records;
};

// Threads: one thread.
// Owns: an open index file. Failure: an error number in the page.
class RecordTail {
 public:
  static constexpr std::size_t kRecordBytesMax = std::size_t{64} << 10;  // a longer text is cut

  explicit RecordTail(std::string base_path) : base_path_(std::move(base_path)) {}

  // Whether there may be records that Read has not returned yet. [owning thread]
  [[nodiscard]] bool HasMoved();

  // The records after the cursor, at most the newest `count_max` of them; without a cursor, the newest records.
  // [owning thread]
  [[nodiscard]] RecordPage Read(const std::optional<Cursor>& after, std::uint32_t count_max);

 private:
  std::string base_path_;
  file::Descriptor index_;
  struct stat status_ = {};
  std::optional<report::IndexHeader> header_;
};

}  // namespace qx::view
