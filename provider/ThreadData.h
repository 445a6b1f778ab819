// The state that the report functions keep for one service thread between calls.
//
// A client reads a report in several calls on one service thread. Between the calls, this object keeps the open report
// and the state that the ring had at the first call. The object's address is in the request block (element 1): the
// service keeps it with its thread, and passes it in every later block of the thread, and to __threadend at the end.
// Nothing is kept in thread-local storage.
#pragma once

#include <cstdint>

#include "reportfile/ReportFileBase.h"

// The state of one service thread's transfer.
//
// Threads: the service thread that it belongs to; reached only through that thread's blocks, so nothing is locked.
// Owns: the report file.
// Failure: none; closing is part of the destruction.
class CThreadData {
 public:
  CThreadData();
  ~CThreadData();
  CThreadData(const CThreadData&) = delete;
  CThreadData& operator=(const CThreadData&) = delete;

  // Order is interface: other code of the suite reads this layout.

  // Low 32 bits of pthread_self() of the thread that created the object.
  std::uint32_t thread_id;
  // Number of calls since the transfer began; a call that finds 0 opens the report.
  std::uint32_t state_word = 0;
  // Size of the data file in bytes, taken when the report was opened. Below 0: the report is closed, because it could
  // not be opened again after the transfer's first record; the value is the negated error number.
  std::int64_t data_file_size = 0;
  // Slot of the oldest record and number of slots in use, as this transfer found them; -1 before the first transfer. A
  // transfer covers the records that existed when it began: records appended later do not change these two.
  std::int64_t oldest_index = -1;
  std::int64_t highest_index = -1;
  // The report being transferred; open between the calls.
  CReportFileBase report_file;
};
