// Reads the records of a report: all records that it has now, or only the new ones.
//
//   qx::Reader report;
//   if (report.Open(path).Failed()) ...
//   for (const qx::RecordView& record : report) ...                      the records of this moment, oldest first
//   while (auto record = report.Next(std::chrono::seconds(1))) ...       each record once, as they are appended
//   SaveSomewhere(report.Cursor());                                      Open(path, cursor) continues after a restart
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
  kWhole = 0,    // what its writer appended
  kDamaged = 1,  // the text ends elsewhere than the record: a line feed, a NUL or a byte 0xFF in it, or damaged files
  kOverwritten = 2,  // a writer has replaced the record, or overwritten its text with longer records: there is no text
};

// What happened since the last record that Next returned.
enum class ReadEvent : int {
  kNone = 0,
  kGap = 1,          // the ring has overwritten records that were not read yet
  kAmbiguous = 2,    // the records repeat, so that the place is not certain; some may be missing, none comes twice
  kStartedOver = 3,  // there are fewer records than before: the report is a new one
};

// A record of a loop. The text is in the reader: copy it to keep it.
struct RecordView {
  std::string_view text = {};  // without its line end; valid until the iterator moves or the reader is used otherwise
  RecordState state = RecordState::kWhole;

  [[nodiscard]] bool IsWhole() const { return state == RecordState::kWhole; }
};

// A record that was read singly, or that Next returned.
struct Record {
  std::string text = {};  // without its line end
  RecordState state = RecordState::kWhole;
  ReadEvent event = ReadEvent::kNone;                // of Next: what happened before this record
  std::optional<std::uint64_t> lost = std::nullopt;  // kGap: how many records are missing, if that is known

  [[nodiscard]] bool IsWhole() const { return state == RecordState::kWhole; }
};

// A report that is open for reading. Reader and writer need no coordination.
//
// Threads: one thread.
// Owns: the open files; four bytes for each record of the snapshot, and about 350 KiB for texts; the same once more as
// soon as Next is used. The files stay open until Close. If the path leads to other files, because the report was made
// again or restored, Refresh, Next and a loop after Refresh read those.
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

  // The same, but Next continues after the last record that it returned before `cursor` was taken. With an empty
  // cursor, Next begins at the oldest record. kBadArgument if the text is not a cursor. [owning thread]
  Error Open(const std::string& path, std::string_view cursor);

  // Takes a new snapshot. After an error it is empty. [owning thread]
  Error Refresh();

  // How many records the snapshot has. [owning thread]
  [[nodiscard]] std::uint32_t Count() const;

  // The record of this age in the snapshot, 0 being the oldest. kBadArgument from Count on. [owning thread]
  Error Read(std::uint32_t age, Record& record);

  // The records of the snapshot, oldest first, or from an age on. They are read from the files in runs; nothing is
  // allocated for a record. After an error the loop ends (LastError). [owning thread]
  [[nodiscard]] Iterator begin();
  [[nodiscard]] Iterator begin(std::uint32_t age);
  [[nodiscard]] Iterator end();

  // The next record after the last one that Next returned, whatever the snapshot. Waits up to `timeout` for it. Unset
  // if none came in time, or if LastError has an error. If the report was started over, or the ring has overwritten
  // records, the `event` of the next record shows it. [owning thread]
  [[nodiscard]] std::optional<Record> Next(std::chrono::milliseconds timeout = std::chrono::milliseconds(0));

  // The position of Next, as one line of at most 700 characters. After a restart, Next continues at this position, even
  // if the ring has got new records: it compares the texts of the last records. [owning thread]
  [[nodiscard]] std::string Cursor() const;

  // Why the last loop or Next ended; kNone if there was no error. [owning thread]
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
