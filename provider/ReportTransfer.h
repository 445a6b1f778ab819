// Serves one call of a report transfer, from the checked request to the reply document.
//
// A transfer is a sequence of calls of one service thread. The call with start index 0 (or the first call of the
// thread) opens the report and notes the state of its ring. Every call replies with whole records from its start index
// on, oldest first and less than 1 MiB in all, and with the start index of the next call. docs/documents.md shows the
// documents.
//
// Records are read in runs (qx::report::RecordReader::Take), directly into the reply document. There are two
// exceptions. Records are read one at a time if the trace shows every record, and, in the first call, until the ring
// has been checked. They are first collected in a separate text if the trace shows the reply without its records. The
// reply is the same in each case.
//
// Not here: who may read (CheckRequest), and what the caller does with a document with two roots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "reportfile/RecordReader.h"

class CKrxAdapterModule;
class CMarkup;
class CThreadData;

namespace qx::provider {

// The records of one reply are together shorter than this.
inline constexpr std::size_t kChunkLimitBytes = 0x100000;

// Results of the report functions.
inline constexpr int kRequestFatal = -1;
inline constexpr int kRecordsReturned = 0;
inline constexpr int kNoMoreRecords = 1;
inline constexpr int kRequestRefused = 12;
inline constexpr int kPrivilegeMissing = 401;

// How a transfer reads. Only tests change the defaults.
struct TransferOptions {
  enum class Path {
    kByTrace,    // one of the others, chosen by the level of the trace
    kSingly,     // gathered one at a time, then set in the reply
    kInRuns,     // gathered in runs, then set in the reply
    kIntoReply,  // in runs, read into the reply
  };
  Path path = Path::kByTrace;
  // Called after the read of a transfer's first record, and before the report is opened again to check whether the ring
  // has advanced. So a test can write at this point.
  void (*first_record_read)(void* context) = nullptr;
  void* context = nullptr;
};

// The request of a client.
struct TransferRequest {
  std::string name;           // of the report, below the report directory; any bytes but NUL
  std::string escaped_name;   // as it appears in replies
  std::int32_t start_index;   // age of the first requested record, 0 = oldest; may be negative
  std::int32_t record_limit;  // negative = none; -1 when not given
};

// True if a client's report name has no ".." component. A name with such a component counts as a report that does not
// exist.
//   r1, sub/r1, a..b, (empty)  => yes
//   .., ../r1, sub/../r1       => no
// [any thread]
[[nodiscard]] bool StaysInReportDirectory(std::string_view name);

// One GetReports call whose request has passed the checks.
//
// Threads: the service thread that makes the call. Owns: nothing that outlives the call.
// Failure: an error document in `out`; std::bad_alloc passes through with the transfer's state intact.
class ReportTransfer {
 public:
  ReportTransfer(CKrxAdapterModule& module, CThreadData& thread_data, CMarkup& out,
                 const TransferOptions& options = {});

  // Serves the request in the current element of `in`. Returns 0, with the records after what `out` contained, or 1 or
  // 12, with an error document in place of what `out` contained. The caller increments the state word. [owning thread]
  [[nodiscard]] int Run(CMarkup& in);

 private:
  enum class Round { kContinue, kEnd };

  void StartOver();
  [[nodiscard]] bool IsFirstCall() const;
  [[nodiscard]] bool OpenReport(int* error_number);
  [[nodiscard]] std::size_t SpaceForRecords() const;

  [[nodiscard]] int ServeGathered();
  [[nodiscard]] int ServeIntoReply();

  void GatherRecords(std::string& text);
  void TakeRecords(std::string& text);
  [[nodiscard]] bool TakesSingly() const;
  [[nodiscard]] Round TakeOne(std::string& text);
  [[nodiscard]] Round TakeRun(std::string& text);
  void NoteFailedRead();
  [[nodiscard]] std::size_t GatheredBytes(const std::string& text) const { return text.size() - records_at_; }
  [[nodiscard]] bool RingHasMoved();
  [[nodiscard]] bool LimitReached() const;
  [[nodiscard]] std::uint32_t CountOfRun() const;
  [[nodiscard]] std::uint32_t SlotOf(std::int64_t index) const;

  [[nodiscard]] int ReplyNotReadable(int error_number);
  [[nodiscard]] int ReplyNoText();
  [[nodiscard]] int ReplyNoMoreRecords();
  void ReserveReply(std::size_t records_bytes);
  void AddReplyElement(std::int64_t next_index);
  [[nodiscard]] int ReplyRecords(const std::string& records);
  [[nodiscard]] std::int64_t LikelyNextIndex() const;

  CKrxAdapterModule& module_;
  CThreadData& thread_data_;
  CMarkup& out_;
  const TransferOptions options_;
  const TransferOptions::Path path_taken_;
  // True if the document already has a root (the refusal) and nothing is traced. Then no record reaches the caller, and
  // the result is certain after the first record with a text. A traced call continues to read, because the trace shows
  // the number of records.
  const bool stops_at_text_;

  TransferRequest request_{};
  std::string path_;  // of the report's files, without extension

  // The state of the reading loop.
  report::RecordReader reader_;
  std::int64_t index_ = 0;            // age of the record to take next
  std::size_t records_at_ = 0;        // where the records begin in the text that takes them
  bool check_ring_ = false;           // the ring is to be checked after the next read
  std::string line_;                  // the record that TakeOne reads
  std::uint32_t empty_in_a_row_ = 0;  // records without text that TakeOne read last
  int read_error_ = 0;                // the system's error number, if that is why the reading ended
};

}  // namespace qx::provider
