// Appends records to a report. Calls that would lose or damage records are refused.
//
// A Writer uses CReportFileBase (reportfile/ReportFileBase.h), which refuses nothing. A Writer allows only one writer
// at a time, stores only records that can be read back, appends many records at once, and returns errors with a reason.
// The files have the same format.
#pragma once

#if __cplusplus < 202002L
#error "QXRemConXfer needs C++20: compile with -std=c++20, or use the C interface sdk/qxreport.h."
#endif

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "sdk/Error.h"

namespace qx {

// The longest text of a record: with its line end it still fits into one reply of the module.
inline constexpr std::size_t kRecordTextMax = 0x100000 - 3;

// The path of a report in the report directory of this machine; empty for a name that no report can have, because it
// has a component "..". Throws std::bad_alloc. [any thread]
//   "a/load"  => "/srv/reports/a/load"
[[nodiscard]] std::string ReportPath(std::string_view name);

// How a Writer finds out whether another writer has the report open.
enum class WriterCheck {
  kEveryProcess,  // by the lock, and by the open files of all processes, because old agents do not take the lock
  kLock,          // only by the lock, which takes less time: for a directory in which every writer takes the lock
};

// The only writer of a report.
//
// Threads: Append may be called from several threads at the same time, and a batch stays together; the rest belongs to
// one thread.
// Owns: the report's files and their advisory lock, until Close or the end of the scope.
// Failure: an Error. No exception leaves the class. A refused call writes nothing.
class Writer {
 public:
  Writer();
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Opens `path`.ind and `path`.dat, or creates a report with space for `ring_size` records. A report that exists keeps
  // its own ring size (RingSize). An open report is closed first. Errors: kBadArgument; kOtherWriter; kDamaged if no
  // writer leaves such a header, or if one file is missing and the other one is not empty; kSystem. If a killed writer
  // left records that the header does not count, they are counted now. [owning thread]
  Error Open(const std::string& path, std::uint32_t ring_size, WriterCheck check = WriterCheck::kEveryProcess);

  // The same for a report that must exist (kNotFound); nothing is created. [owning thread]
  Error OpenExisting(const std::string& path);

  // Appends one record, which replaces the oldest one if the ring is full. Without an error the record is in both
  // files; it is not synced to the disk. The text needs no line end. Errors: kBadText, kTooLong, kNotOpen, kFull;
  // kSystem and kNoMemory, after which the record is not in the report. [any thread]
  Error Append(std::string_view text);
  Error Append(std::nullptr_t) = delete;

  // Appends many records, at least twenty times as fast as one by one. All texts are checked before anything is
  // written; the error's `record` is the index of the refused text. After kFull, kSystem and kNoMemory exactly the
  // texts before `record` are stored. [any thread]
  Error Append(std::span<const std::string_view> texts);
  Error Append(std::span<const std::string> texts);
  Error Append(std::initializer_list<std::string_view> texts);

  // Appends copies of records as readers returned them, with their line ends. Readers of this report then get the same
  // bytes. Errors as above; kBadText for a text that no reader returns, because it continues after a byte at which a
  // record ends. [any thread]
  Error AppendCopies(std::span<const std::string_view> records);

  // Writes the header if the one in the file does not count every appended record: an append succeeds even if its write
  // of the header fails. Errors: kNotOpen, kSystem. [any thread]
  Error Confirm();

  // Checks that nobody else has changed the report. Errors: kNotOpen; kNotFound if the path leads to other files now,
  // or to no files; kOtherWriter if the header is not the one that this writer wrote. [any thread]
  Error CheckUntouched();

  // Reads the record of this age (0 is the newest one) as readers return it. Errors: kNotOpen; kBadArgument if there is
  // no record that can be read. [any thread]
  Error ReadBack(std::uint32_t age, std::string& record);

  // Closes the files and releases the lock. [owning thread]
  void Close();

  [[nodiscard]] bool IsOpen() const;
  // The number of slots in the ring of the open report; 0 if no report is open. [owning thread]
  [[nodiscard]] std::uint32_t RingSize() const;
  // The number of records that were appended to the open report since it was created, modulo 2^32; 0 if no report is
  // open. [owning thread]
  [[nodiscard]] std::uint32_t RecordCount() const;

 private:
  struct Parts;

  Error OpenGuarded(const std::string& path, std::uint32_t ring_size, bool may_create, WriterCheck check);

  std::unique_ptr<Parts> parts_;
};

}  // namespace qx
