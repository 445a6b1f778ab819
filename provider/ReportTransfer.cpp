#include "provider/ReportTransfer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "debug/Debug.h"
#include "markup/Markup.h"
#include "provider/BufferPool.h"
#include "provider/KrxAdapterModule.h"
#include "provider/QXString.h"
#include "provider/ServerControlPaths.h"
#include "provider/ThreadData.h"
#include "provider/TracedName.h"

namespace qx::provider {

namespace {

constexpr std::int32_t kNoRecordLimit = -1;
constexpr std::int64_t kSizeShownInBytesMax = 10239;
constexpr int kChunkLimitKb = kChunkLimitBytes / 1024;
constexpr std::size_t kDataTracedBytes = 256;
constexpr std::uint32_t kEmptyRecordsShownMax = 100000;
constexpr std::uint32_t kLevelOfBareReplies = 4;    // the trace then shows the reply before it has its records
constexpr std::uint32_t kLevelOfSingleRecords = 5;  // and every record

// Trace conversions and index attributes show 32 bits of a number.
constexpr int LowInt(std::int64_t number) { return static_cast<int>(number); }

// An index attribute: decimal, cut to 32 bits; text that is not a number is read as 0.
//   "12" => 12    "" => if_empty    "x" => 0    "4294967297" => 1
std::int32_t IndexAttribute(CMarkup& in, const char* name, std::int32_t if_empty) {
  const std::string text = in.GetAttrib(name);
  return text.empty() ? if_empty : LowInt(std::strtol(text.c_str(), nullptr, 10));
}

TransferRequest ReadRequest(CMarkup& in) {
  TransferRequest request{};
  request.name = in.GetAttrib("Name");
  request.escaped_name = CMarkup::EscapeTextBinary(request.name, CMarkup::kEscapeQuotes);
  TraceNameDump(4, request.name);
  request.start_index = IndexAttribute(in, "StartIndex", 0);
  request.record_limit = IndexAttribute(in, "NrRecords", kNoRecordLimit);
  return request;
}

void TraceRequest(const TransferRequest& request) {
  QX_TRACE(4, "\nWCSP_QX GetReports  :   report name: \"%s\", start index: %d", ShownName(request.name).c_str(),
           request.start_index);
  if (request.record_limit == kNoRecordLimit) return;
  QX_TRACE(4, "\nWCSP_QX GetReports  :   nr of records to read: %d", request.record_limit);
}

// The base path of the report's two files.
std::string ReportPath(const std::string& name) {
  std::string path;
  CServerControlPaths::GetServerControlReportPath(path);
  path.append("/");
  QX_TRACE(4, "\nWCSP_QX GetReports  :   report file path: %s%s", path.c_str(), ShownName(name).c_str());
  return path.append(name);
}

void TraceOpened(const TransferRequest& request, std::int64_t size) {
  const bool in_bytes = size <= kSizeShownInBytesMax;
  QX_TRACE(2, "\nWCSP_QX GetReports  : Get report file \"%s\", total size: %d %s, chunk size: %d kB",
           ShownName(request.name).c_str(), LowInt(in_bytes ? size : size >> 10), in_bytes ? "Bytes" : "kB",
           kChunkLimitKb);
}

void TraceSnapshot(const CThreadData& data) {
  QX_TRACE(3, "\nWCSP_QX GetReports  :   oldest index:  %d", LowInt(data.oldest_index));
  QX_TRACE(3, "\nWCSP_QX GetReports  :   highest index: %d", LowInt(data.highest_index));
}

void TraceChunkFull() {
  QX_TRACE(4, "\nWCSP_QX GetReports  :   --> chunk size limit (%d) reached, return now",
           static_cast<int>(kChunkLimitBytes));
}

std::string WithoutOuterWhiteSpace(std::string_view text) {
  constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1));
}

// If a report could not be opened again, the negated error number is kept in the place of its size.
int ReopenError(const CThreadData& data) { return data.data_file_size < 0 ? LowInt(-data.data_file_size) : 0; }
void NoteReopenError(CThreadData& data, int error) { data.data_file_size = -std::int64_t{std::max(error, 1)}; }

TransferOptions::Path PathByTrace() {
  if (Debug.IsActive(kLevelOfSingleRecords)) return TransferOptions::Path::kSingly;
  return Debug.IsActive(kLevelOfBareReplies) ? TransferOptions::Path::kInRuns : TransferOptions::Path::kIntoReply;
}

void TraceReply(CMarkup& out, const std::string& records) {
  QX_TRACE(4, "\nWCSP_QX GetReports  :   XML reply: \"%s\"", out.GetDoc().c_str());
  QX_TRACE(4, "\nWCSP_QX GetReports  :   data length = %d bytes", LowInt(static_cast<std::int64_t>(records.size())));
  QX_TRACE(4, "\nWCSP_QX GetReports  :   data:   \"%s...\"", records.substr(0, kDataTracedBytes).c_str());
}

}  // namespace

bool StaysInReportDirectory(std::string_view name) {
  for (;;) {
    const std::size_t end = name.find('/');
    if (name.substr(0, end) == "..") return false;
    if (end == std::string_view::npos) return true;
    name.remove_prefix(end + 1);
  }
}

ReportTransfer::ReportTransfer(CKrxAdapterModule& module, CThreadData& thread_data, CMarkup& out,
                               const TransferOptions& options)
    : module_(module),
      thread_data_(thread_data),
      out_(out),
      options_(options),
      path_taken_(options.path == TransferOptions::Path::kByTrace ? PathByTrace() : options.path),
      stops_at_text_(!out.GetDoc().empty() && !Debug.IsActive()),
      reader_(thread_data.report_file) {}

int ReportTransfer::Run(CMarkup& in) {
  request_ = ReadRequest(in);
  if (request_.start_index == 0) StartOver();
  TraceRequest(request_);
  path_ = ReportPath(request_.name);

  if (IsFirstCall()) {
    int error_number = 0;
    if (!OpenReport(&error_number)) return ReplyNotReadable(error_number);
  }
  TraceSnapshot(thread_data_);
  return path_taken_ == TransferOptions::Path::kIntoReply ? ServeIntoReply() : ServeGathered();
}

int ReportTransfer::ServeGathered() {
  PooledBuffer buffer(SpaceForRecords());
  std::string& records = buffer.text();
  GatherRecords(records);
  return records.empty() ? ReplyNoText() : ReplyRecords(records);
}

// The tag with the next index comes before the records, so the next index is estimated first. If the estimate has as
// many digits as the index, the index just replaces it; otherwise the records are moved by the difference.
int ReportTransfer::ServeIntoReply() {
  ReserveReply(SpaceForRecords());
  AddReplyElement(LikelyNextIndex());
  bool empty = true;
  out_.SetCDataBy([&](std::string& text) {
    GatherRecords(text);
    empty = GatheredBytes(text) == 0;
    return reader_.MayHaveTakenBracket();
  });
  if (empty) return ReplyNoText();
  out_.SetAttrib("NextIndex", LowInt(index_));
  return kRecordsReturned;
}

void ReportTransfer::StartOver() {
  QX_TRACE(3, "\nWCSP_QX GetReports  : New call (StartIndex=0) ==> reset class");
  thread_data_.report_file.Close();
  thread_data_.state_word = 0;
  if (ReopenError(thread_data_) != 0) thread_data_.data_file_size = 0;
}

bool ReportTransfer::IsFirstCall() const { return thread_data_.state_word == 0; }

// Opens the report and notes its state. False: `error_number` is that of the system, the thread's data still has the
// state of the previous transfer, and later reads find the store closed.
bool ReportTransfer::OpenReport(int* error_number) {
  if (!StaysInReportDirectory(request_.name)) {
    *error_number = ENOENT;
    return false;
  }
  CReportFileBase& store = thread_data_.report_file;
  if (!store.OpenRead(path_.c_str())) {
    *error_number = errno;
    return false;
  }

  thread_data_.data_file_size = store.GetDataFileSize();
  thread_data_.oldest_index = store.header().oldestIndex;
  thread_data_.highest_index = store.header().highestIndex;
  TraceOpened(request_, thread_data_.data_file_size);
  return true;
}

std::size_t ReportTransfer::SpaceForRecords() const {
  return static_cast<std::size_t>(std::clamp<std::int64_t>(thread_data_.data_file_size, 0, kChunkLimitBytes));
}

// Appends the records to `text`.
void ReportTransfer::GatherRecords(std::string& text) {
  index_ = request_.start_index;
  records_at_ = text.size();
  check_ring_ = IsFirstCall();
  TakeRecords(text);
  QX_TRACE(3, "\nWCSP_QX GetReports  : %d records read (%d bytes)", LowInt(index_ - request_.start_index),
           LowInt(static_cast<std::int64_t>(GatheredBytes(text))));
}

void ReportTransfer::TakeRecords(std::string& text) {
  for (Round round = Round::kContinue; round == Round::kContinue;) {
    if (index_ >= thread_data_.highest_index) {
      QX_TRACE(3, "\nWCSP_QX GetReports  :   index higher that highest index - exit reading");
      return;
    }
    // When the record limit is reached, the next record is still read: it decides which limit ends the reading.
    round = TakesSingly() || check_ring_ || LimitReached() ? TakeOne(text) : TakeRun(text);
    if (stops_at_text_ && GatheredBytes(text) != 0) return;
  }
}

// A damaged header can count billions of slots whose record has no text. After a large number of them in a row, further
// lines in the trace are of no use. The rest is read in runs, which skip such slots at once.
bool ReportTransfer::TakesSingly() const {
  return path_taken_ == TransferOptions::Path::kSingly && empty_in_a_row_ < kEmptyRecordsShownMax;
}

ReportTransfer::Round ReportTransfer::TakeOne(std::string& text) {
  const std::uint32_t slot = SlotOf(index_);
  QX_TRACE(5, "\nWCSP_QX GetReports  :   read entry #%d, index=%d", LowInt(index_), LowInt(slot));
  line_.clear();
  bool too_long = false;
  const bool was_read = reader_.Read(slot, kChunkLimitBytes - GatheredBytes(text), &line_, &too_long);
  if (!was_read) NoteFailedRead();
  if (check_ring_ && RingHasMoved()) return was_read ? Round::kContinue : Round::kEnd;
  if (!was_read) return Round::kEnd;

  if (too_long) {
    TraceChunkFull();
    return Round::kEnd;
  }
  if (LimitReached()) {
    QX_TRACE(4, "\nWCSP_QX GetReports  :   --> number of requested records (%d) reached, return now",
             request_.record_limit);
    return Round::kEnd;
  }
  text += line_;
  empty_in_a_row_ = line_.empty() ? empty_in_a_row_ + 1 : 0;
  QX_TRACE(5, "\nWCSP_QX GetReports  :   --> entry: %s", WithoutOuterWhiteSpace(line_).c_str());
  ++index_;
  return Round::kContinue;
}

ReportTransfer::Round ReportTransfer::TakeRun(std::string& text) {
  report::TakeLimits limits{.count_max = CountOfRun(), .gathered_max = records_at_ + kChunkLimitBytes};
  if (stops_at_text_) limits.enough_bytes = 1;
  const report::TakenRecords taken = reader_.Take(SlotOf(index_), limits, &text);
  index_ += taken.count;
  if (taken.end == report::TakeEnd::kReadFailed) NoteFailedRead();
  if (taken.end == report::TakeEnd::kChunkFull) TraceChunkFull();
  return taken.end == report::TakeEnd::kCountReached ? Round::kContinue : Round::kEnd;
}

// Notes why the next record cannot be read, if the system is the reason: it reports an error, or the report is closed
// because it could not be opened again. A slot that is not in use is the end of the report.
void ReportTransfer::NoteFailedRead() {
  const int error = reader_.Error();
  read_error_ = error != 0 ? error : ReopenError(thread_data_);
}

// Whether the writer has advanced the ring since the transfer began. If so, the record that was just read may not be
// the one of its index, and from now on the new oldest slot is used. This is checked once in a transfer, after the
// first read; later the transfer returns the records that it finds. If the report cannot be opened again, the record is
// used, and the store stays closed.
bool ReportTransfer::RingHasMoved() {
  check_ring_ = false;
  if (options_.first_record_read != nullptr) options_.first_record_read(options_.context);
  CReportFileBase& store = thread_data_.report_file;
  store.Close();
  reader_.Drop();
  const bool is_open = store.OpenRead(path_.c_str());
  const int error = errno;
  if (!is_open) {
    NoteReopenError(thread_data_, error);
    return false;
  }
  QX_TRACE(4, "\nWCSP_QX GetReports  :     compare oldest index=%d whether changed",
           LowInt(store.header().oldestIndex));
  if (store.header().oldestIndex == thread_data_.oldest_index) return false;
  thread_data_.oldest_index = store.header().oldestIndex;
  QX_TRACE(2,
           "\nWCSP_QX GetReports  : ## WARNING! OldestIndex has changed since first line was read - ignore first line");
  return true;
}

// Quirk: every negative number means no limit, not only -1.
bool ReportTransfer::LimitReached() const {
  return request_.record_limit >= 0 && index_ - request_.start_index >= request_.record_limit;
}

// The number of records from index_ on that are requested, are part of the transfer, and are in slots that follow one
// another. It is at least one, because index_ is below the highest index and the limit is not reached.
std::uint32_t ReportTransfer::CountOfRun() const {
  const auto highest = static_cast<std::uint32_t>(thread_data_.highest_index);
  const auto sum = static_cast<std::uint32_t>(index_ + thread_data_.oldest_index);
  constexpr std::uint64_t kSlotNumbers = std::uint64_t{1} << 32;
  std::uint64_t count = sum < highest ? highest - sum : kSlotNumbers - sum;  // up to the next step back of SlotOf

  count = std::min(count, static_cast<std::uint64_t>(thread_data_.highest_index - index_));
  if (request_.record_limit >= 0) {
    const std::int64_t taken = index_ - request_.start_index;
    count = std::min(count, static_cast<std::uint64_t>(request_.record_limit - taken));
  }
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(count, std::numeric_limits<std::uint32_t>::max()));
}

// The slot of a record by age. Quirk: the sum has 32 bits, and the number of slots is subtracted at most once. So a
// negative index can lead to a record, and a damaged oldest index to slots that are not in use.
//   5 slots in use, oldest 2: index 0 => slot 2, index 3 => slot 0
//   5 slots in use, oldest 3: index -1 => slot 2
std::uint32_t ReportTransfer::SlotOf(std::int64_t index) const {
  const auto highest = static_cast<std::uint32_t>(thread_data_.highest_index);
  const auto sum = static_cast<std::uint32_t>(index + thread_data_.oldest_index);
  return sum < highest ? sum : sum - highest;
}

int ReportTransfer::ReplyNotReadable(int error_number) {
  CQXString<> message;
  message.Format("Report data for report '%s' could not be read", request_.escaped_name.c_str());
  const auto code = static_cast<unsigned>(error_number);
  module_.SetRequestError(out_, message.c_str(), code);
  QX_TRACE(1, "\nWCSP_QX GetReports  : ## ERROR! Could not read data file for report \"%s\" (0x%08X)",
           ShownName(request_.name).c_str(), code);
  return kRequestRefused;
}

// A report with an unreadable record must not seem to end there. The next call tries the record again.
int ReportTransfer::ReplyNoText() { return read_error_ != 0 ? ReplyNotReadable(read_error_) : ReplyNoMoreRecords(); }

int ReportTransfer::ReplyNoMoreRecords() {
  module_.SetRequestError(out_, "No more records available (no error)", 0);
  QX_TRACE(4, "\nWCSP_QX GetReports  : No more records available");
  return kNoMoreRecords;
}

// Gives an empty document a buffer of the pool, large enough for the reply. The caller returns the buffer to the pool
// (BufferPool::Return of ReleaseDoc).
void ReportTransfer::ReserveReply(std::size_t records_bytes) {
  constexpr std::size_t kMarkupBytes = 256;  // tags, indices and the start and end of the section
  if (!out_.GetDoc().empty()) return;
  out_.SetDoc(transfer_buffers.Take(records_bytes + 2 * request_.escaped_name.size() + kMarkupBytes));
}

// If the caller was refused, the document has an "Error" root already. The element that is added here is the second
// root, and for a document with two roots the reply is null.
void ReportTransfer::AddReplyElement(std::int64_t next_index) {
  out_.AddElem("ReportData");
  out_.SetAttrib("Name", request_.escaped_name.c_str());
  out_.SetAttrib("StartIndex", request_.start_index);
  out_.SetAttrib("NextIndex", LowInt(next_index));
}

int ReportTransfer::ReplyRecords(const std::string& records) {
  ReserveReply(records.size());
  AddReplyElement(index_);
  TraceReply(out_, records);
  out_.SetData(records, CMarkup::kAddCData);
  return kRecordsReturned;
}

// An estimate of the next index, from the size of the data file and the number of slots.
std::int64_t ReportTransfer::LikelyNextIndex() const {
  const std::int64_t highest = std::max<std::int64_t>(thread_data_.highest_index, 1);
  const std::int64_t record_bytes = std::max<std::int64_t>(thread_data_.data_file_size / highest, 1);
  std::int64_t count = static_cast<std::int64_t>(kChunkLimitBytes) / record_bytes;
  if (request_.record_limit >= 0) count = std::min<std::int64_t>(count, request_.record_limit);
  return std::min<std::int64_t>(request_.start_index + count, thread_data_.highest_index);
}

}  // namespace qx::provider
