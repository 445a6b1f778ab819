// The index of a report that pages show: the range of times of each block of records, and the reduced values of fields.
//
// The first request reads all records, later requests only new records. If the reduced values are too coarse for a
// range of time, the range is read from the file, but only the blocks of records that can have such times.
//
// To read a large report takes seconds. So the work for a request is done in steps, and between two of them the index
// may work for another request.
//
// A record without a stamp has the time of the one before it. If no record has a stamp, the place of a record is its
// number.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sdk/StoreSnapshot.h"
#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxview/report/Columns.h"
#include "tools/qxview/report/Cursor.h"
#include "tools/qxview/report/Gaps.h"

namespace qx::view {

// The values at one place, at which at least one field has a value.
struct ChartRow {
  std::int64_t place = 0;
  std::vector<std::optional<Column>> values;  // one for each field
};

struct Chart {
  bool has_times = true;  // else places are the numbers of records
  Cursor cursor;          // after the newest record
  PlaceRange range;
  std::optional<PlaceRange> all;  // of all records; unset if there is no record
  std::vector<ChartRow> rows;
  std::vector<Gap> gaps;
};

struct ChartRequest {
  std::vector<std::string> fields;  // at most ReportIndex::kFieldsMax
  std::optional<std::int64_t> from = {};
  std::optional<std::int64_t> to = {};
  std::size_t columns = 800;
};

// A record that a pass has reached. The text is valid during the call.
struct PassedRecord {
  std::uint64_t number = 0;
  std::optional<std::int64_t> place;  // unset before the first stamp
  std::string_view text;              // without the line end of a whole record
  bool is_whole = true;               // it ends with CR LF
};

// The progress of the work for a request.
struct IndexWork {
  std::uint64_t run = 0;  // of the index; 0: the work has not begun
  int begins = 0;
  std::uint64_t end = 0;    // the number after the newest record that the request needs
  bool is_current = false;  // the index has these records
  bool is_passing = false;
  std::uint64_t next = 0;  // the record to be passed next
  bool is_done = false;
};

struct Drawing {
  ChartRequest request;
  Chart chart = {};  // complete when the work is done
  bool needs_records = false;
  IndexWork work = {};
};

struct RangeReading {
  using Begin = std::function<void()>;
  using Take = std::function<void(const PassedRecord& record)>;

  PlaceRange range;
  Begin begin;  // called before the first record, and again if the report was started over: what was taken is void then
  Take take;    // gets the records of the range, oldest first
  Cursor cursor = {};  // after the newest record of the report
  IndexWork work = {};
};

// Threads: one thread.
// Owns: 48 bytes for each 1024 records, and at most 330 KiB for each field; until a turn is over, also the open files
// and four bytes for each record. Failure: an Error of the store; the index is then empty. Throws std::bad_alloc.
class ReportIndex {
 public:
  static constexpr std::size_t kFieldsMax = 16;          // that are kept; the least recently used ones are dropped
  static constexpr std::uint64_t kStepRecords = 16'384;  // that one step reads, in about five milliseconds
  static constexpr int kBeginsMax = 4;                   // of work for a report that is started over again and again

  using Take = RangeReading::Take;

  explicit ReportIndex(std::string base_path, std::uint64_t step_records = kStepRecords);

  // Does the next step of the work. Another index may have done the step before. After the last step of a turn the
  // files are closed, because the next step may be for another report. [owning thread]
  Error Step(Drawing& drawing, bool is_last_of_turn);
  Error Step(RangeReading& reading, bool is_last_of_turn);

  [[nodiscard]] std::size_t Bytes() const;

 private:
  // A block of consecutive records.
  struct Block {
    std::uint64_t first = 0;             // number of the first record
    std::optional<std::int64_t> before;  // the place of the record before the block
    std::int64_t min = std::numeric_limits<std::int64_t>::max();
    std::int64_t max = std::numeric_limits<std::int64_t>::min();
  };
  struct Field {
    Columns columns;
    std::uint64_t next = 0;              // the record whose value is added next
    std::optional<std::int64_t> before;  // the place of the record before `next`
    std::uint64_t last_use = 0;
  };
  using FieldRef = std::pair<const std::string, Field>*;

  Error TakeSnapshot();
  void Forget();
  Error FindPlaceKind();
  [[nodiscard]] Error Continues(bool& continues) const;

  Error CatchUp(IndexWork& work, const std::vector<std::string>& fields);
  std::vector<FieldRef> UseFields(const std::vector<std::string>& names);
  Error ReadOldValues(const std::vector<FieldRef>& fields);
  Error TakeNew(std::uint64_t end);
  void Enter(const PassedRecord& record, const std::vector<FieldRef>& fields);
  Error DropOld();
  void DropUnusedFields();
  [[nodiscard]] std::uint64_t NextOf(const Field& field) const { return std::max(field.next, begin_); }

  void Begin(Drawing& drawing) const;
  void DrawColumns(Drawing& drawing) const;
  Error DrawRecords(Drawing& drawing);
  [[nodiscard]] Error EndStep(const IndexWork& work, bool is_last_of_turn, Error error);

  Error Pass(std::uint64_t from, std::uint64_t to, std::optional<std::int64_t> place, const Take& take) const;
  Error PassBlocks(IndexWork& work, const PlaceRange& range, const Take& take);

  [[nodiscard]] std::optional<PlaceRange> All() const;
  [[nodiscard]] bool NeedsRecords(const ChartRequest& request, const PlaceRange& range, const PlaceRange& all) const;

  std::string base_path_;
  ctl::TimeRules time_;
  std::unique_ptr<sdk::StoreSnapshot> snapshot_;  // null between turns
  std::uint64_t step_records_;
  std::uint64_t budget_ = 0;  // records that the step may still read
  std::uint64_t run_;         // a new number whenever the report is started over; no two indexes have the same one
  bool is_known_ = false;
  bool has_times_ = true;
  std::uint64_t begin_ = 0;            // the oldest record of the ring
  Cursor cursor_;                      // after the last record that was added
  std::optional<std::int64_t> place_;  // of that record
  std::deque<Block> blocks_;
  Pauses pauses_;
  std::map<std::string, Field> fields_;
  std::uint64_t uses_ = 0;
};

}  // namespace qx::view
