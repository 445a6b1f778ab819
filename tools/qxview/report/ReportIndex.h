// What is kept of a report while pages show it: the range of times of each block of records, and the reduced values of
// fields.
//
// The first time all records are read, later only those that are new. A range of time for which the reduced values are
// too coarse is read from the file, but only the blocks of records that can have such times.
//
// A record without a stamp has the time of the one before it. If no record has a stamp, a place is a record's number.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sdk/StoreSnapshot.h"
#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxview/report/Columns.h"
#include "tools/qxview/report/Cursor.h"
#include "tools/qxview/report/Gaps.h"

namespace qx::view {

// Places at which at least one field has a value.
struct ChartRow {
  std::int64_t place = 0;
  std::vector<std::optional<Column>> values;  // one for each field
};

struct Chart {
  bool has_times = true;  // else places are the numbers of records
  Cursor cursor;          // after the newest record
  PlaceRange range;
  std::optional<PlaceRange> all;  // of all records; unset without any
  std::vector<ChartRow> rows;
  std::vector<Gap> gaps;
};

struct ChartRequest {
  std::vector<std::string> fields;  // at most ReportIndex::kFieldsMax
  std::optional<std::int64_t> from = {};
  std::optional<std::int64_t> to = {};
  std::size_t columns = 800;
};

// A record of a pass. The text is valid during the call.
struct PassedRecord {
  std::uint64_t number = 0;
  std::optional<std::int64_t> place;  // unset before the first stamp
  std::string_view text;              // without the line end of a whole record
  bool is_whole = true;               // it ends in CR LF
};

// Threads: one thread.
// Owns: 48 bytes for each 1024 records, and at most 330 KiB for each field. The files are open during a call.
// Failure: an Error of the store; then nothing is known of the report. Throws std::bad_alloc.
class ReportIndex {
 public:
  static constexpr std::size_t kFieldsMax = 16;  // that are kept; those not used for longest are dropped

  using Take = std::function<void(const PassedRecord& record)>;

  explicit ReportIndex(std::string base_path) : base_path_(std::move(base_path)) {}

  // [owning thread]
  Error Draw(const ChartRequest& request, Chart& chart);
  // Passes the records of a range to `take`, oldest first; `cursor` is after the newest of the report. [owning thread]
  Error ReadRange(const ChartRequest& request, const Take& take, Cursor& cursor);

  [[nodiscard]] std::size_t Bytes() const;

 private:
  // Neighbouring records.
  struct Block {
    std::uint64_t first = 0;             // number of the first one
    std::optional<std::int64_t> before;  // the place of the record before the block
    std::int64_t min = std::numeric_limits<std::int64_t>::max();
    std::int64_t max = std::numeric_limits<std::int64_t>::min();
  };
  struct Field {
    Columns columns;
    std::uint64_t last_use = 0;
  };

  Error Refresh(sdk::StoreSnapshot& snapshot, const std::vector<std::string>& fields);
  void Forget();
  Error FindPlaceKind(sdk::StoreSnapshot& snapshot);
  [[nodiscard]] Error Continues(sdk::StoreSnapshot& snapshot, bool& continues) const;
  Error AddFields(sdk::StoreSnapshot& snapshot, const std::vector<std::string>& fields);
  Error TakeNew(sdk::StoreSnapshot& snapshot);
  Error DropOld(sdk::StoreSnapshot& snapshot);
  void DropUnusedFields();
  void Enter(const PassedRecord& record);

  Error Pass(sdk::StoreSnapshot& snapshot, std::uint64_t from, std::uint64_t to, std::optional<std::int64_t> place,
             const Take& take) const;
  Error PassBlocks(sdk::StoreSnapshot& snapshot, const PlaceRange& range, const Take& take) const;

  [[nodiscard]] std::optional<PlaceRange> All() const;
  [[nodiscard]] bool NeedsRecords(const ChartRequest& request, const PlaceRange& range, const PlaceRange& all) const;

  std::string base_path_;
  ctl::TimeRules time_;
  bool is_known_ = false;
  bool has_times_ = true;
  std::uint64_t begin_ = 0;            // the oldest record of the ring
  Cursor cursor_;                      // after the last record that was entered
  std::optional<std::int64_t> place_;  // of that record
  std::deque<Block> blocks_;
  Pauses pauses_;
  std::map<std::string, Field> fields_;
  std::uint64_t uses_ = 0;
};

}  // namespace qx::view
