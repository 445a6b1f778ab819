// Reads the records of a report: all records of one moment, or each record once, as it is appended.
//
//   qx::Reader report;
//   if (report.Open(path).Failed()) ...
//   for (const qx::RecordView& record : report) ...                      the records of this moment, oldest first
//   while (auto record = report.Next(std::chrono::seconds(1))) ...       each record once, as they are appended
//   SaveSomewhere(report.Cursor());                                      Open(path, cursor) continues there later
#pragma once

#if __cplusplus < 202002L
#error "QXRemConXfer needs C++20: compile with -std=c++20, or use the C interface sdk/qxreport.h."
#endif

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sdk/Error.h"

namespace qx {

enum class RecordState : int {
  kWhole = 0,        // the text is the one that was appended
  kDamaged = 1,      // the text does not end where the record must end, or a file is damaged
  kOverwritten = 2,  // a writer has replaced the record, or longer records have overwritten its text: there is no text
};

// What happened since the last record that Next returned.
enum class ReadEvent : int {
  kNone = 0,
  kGap = 1,          // the ring has overwritten records that were not read yet
  kAmbiguous = 2,    // records repeat, so the position is not certain; some may be missing, but none is returned twice
  kStartedOver = 3,  // there are fewer records than before: the report is a new one
};

// A record in a loop over the reader. The text belongs to the reader, so copy it to keep it.
struct RecordView {
  std::string_view text = {};  // without its line end; valid until the iterator moves or the reader is used
  RecordState state = RecordState::kWhole;

  [[nodiscard]] bool IsWhole() const { return state == RecordState::kWhole; }
};

// A record that was read singly, or that Next returned.
struct Record {
  std::string text = {};  // without its line end
  RecordState state = RecordState::kWhole;
  ReadEvent event = ReadEvent::kNone;                // only from Next: what happened before this record
  std::optional<std::uint64_t> lost = std::nullopt;  // kGap: the number of missing records, if it is known

  [[nodiscard]] bool IsWhole() const { return state == RecordState::kWhole; }
};

// A report that is open for reading. Writers may write the report at the same time.
//
// Threads: one thread.
// Owns: the open files; four bytes for each record of the snapshot, and about 350 KiB for texts; and the same again
// when Next is used. The files stay open until Close. If the path leads to other files meanwhile, because the report
// was made again or restored, Refresh and Next read the new files, and so do Read and loops after Refresh.
// Failure: an Error, or the end of the records with the reason in LastError. No exception leaves the class.
class Reader {
 public:
  class Iterator;

  Reader();
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Opens the report and takes a snapshot of its records. Next begins at the oldest record. Errors: kBadArgument,
  // kNotFound, kDamaged, kSystem, kNoMemory. [owning thread]
  Error Open(const std::string& path);

  // The same, but Next continues where it was when Cursor returned `cursor`. With an empty cursor, Next begins at the
  // oldest record. kBadArgument if the text is not a cursor. [owning thread]
  Error Open(const std::string& path, std::string_view cursor);

  // Takes a new snapshot. After an error the snapshot is empty. [owning thread]
  Error Refresh();

  // The number of records in the snapshot. [owning thread]
  [[nodiscard]] std::uint32_t Count() const;

  // Reads the record of this age in the snapshot; 0 is the oldest. kBadArgument if `age` is Count() or more. [owning
  // thread]
  Error Read(std::uint32_t age, Record& record);

  // Iterators over the records of the snapshot, from the oldest one or from `age` on. Many records are read at once,
  // and no memory is allocated for each record. After an error the loop ends; LastError has the error. [owning thread]
  [[nodiscard]] Iterator begin();
  [[nodiscard]] Iterator begin(std::uint32_t age);
  [[nodiscard]] Iterator end();

  // The record after the last one that Next returned; the snapshot does not matter. Waits up to `timeout` for it. Unset
  // if no record was appended in time, or after an error, which LastError returns. If the report was started over, or
  // the ring has overwritten records, the `event` of the next record shows it. [owning thread]
  [[nodiscard]] std::optional<Record> Next(std::chrono::milliseconds timeout = std::chrono::milliseconds(0));

  // The position of Next, as one line of at most 700 characters. After a restart of the program, Next can continue at
  // this position, even if the ring has advanced: the cursor has hashes of the last records. [owning thread]
  [[nodiscard]] std::string Cursor() const;

  // The error of the last loop or Next; kNone if there was no error. [owning thread]
  [[nodiscard]] const Error& LastError() const;

  void Close();

 private:
  struct Parts;
  friend class Iterator;

  // Records of the snapshot that are in memory.
  struct Window {
    const RecordView* records = nullptr;
    std::uint32_t age = 0;
    std::uint32_t count = 0;
  };

  [[nodiscard]] const RecordView* RecordAt(std::uint32_t age) {
    const std::uint32_t index = age - window_.age;  // too large for an age before the window
    return index < window_.count ? &window_.records[index] : ReadWindowAt(age);
  }
  [[nodiscard]] const RecordView* ReadWindowAt(std::uint32_t age);
  Error TakeSnapshot(Parts& parts);

  std::unique_ptr<Parts> parts_;
  Window window_;
};

// An input iterator over a snapshot.
class Reader::Iterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = RecordView;
  using difference_type = std::ptrdiff_t;
  using pointer = const RecordView*;
  using reference = const RecordView&;

  Iterator() = default;
  const RecordView& operator*() const { return *record_; }
  const RecordView* operator->() const { return record_; }
  Iterator& operator++() {
    record_ = reader_->RecordAt(++age_);
    return *this;
  }
  void operator++(int) { ++*this; }
  friend bool operator==(const Iterator& left, const Iterator& right) { return left.record_ == right.record_; }

 private:
  friend class Reader;
  Iterator(Reader* reader, std::uint32_t age) : reader_(reader), age_(age), record_(reader->RecordAt(age)) {}

  Reader* reader_ = nullptr;
  std::uint32_t age_ = 0;
  const RecordView* record_ = nullptr;  // null at the end
};

}  // namespace qx
