#include "sdk/Writer.h"

#include <sys/stat.h>

#include <cerrno>
#include <deque>
#include <optional>
#include <vector>

#include "base/File.h"
#include "provider/ServerControlPaths.h"
#include "reportfile/RecordEnds.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/RecordWriter.h"
#include "reportfile/tools/WriterLock.h"
#include "sdk/Errors.h"

namespace qx {

namespace {

using sdk::MakeError;
using sdk::SystemError;

// A text may end at most at this offset, because the end marker must also fit into the 4 GiB that an offset in a slot
// can reach.
constexpr std::int64_t kDataBytesMax = std::int64_t{0xFFFFFFFF} - static_cast<std::int64_t>(report::kEndMarker.size());

// The state of a file of the report before the file is opened.
struct FileState {
  std::string path;
  bool is_there = false;
  bool holds_something = false;

  explicit FileState(std::string file) : path(std::move(file)) {
    struct stat status = {};
    const int error = file::StatusOf(path.c_str(), status);
    is_there = error != ENOENT;  // any other error is reported by the open
    holds_something = error == 0 && status.st_size > 0;
  }
};

Error CheckPath(const std::string& path) {
  if (path.empty()) return MakeError(ErrorCode::kBadArgument, "the path of a report is empty");
  if (path.find('\0') == std::string::npos) return {};
  return MakeError(ErrorCode::kBadArgument, "the path of a report contains a NUL");
}

// Refuses a report with one missing file, because it would be started over, and the other file emptied.
Error CheckFiles(const FileState& index, const FileState& data, bool may_create) {
  const FileState& missing = index.is_there ? data : index;
  const FileState& other = index.is_there ? index : data;
  if (missing.is_there) return {};
  if (!may_create) return MakeError(ErrorCode::kNotFound, "there is no " + missing.path);
  if (!other.holds_something) return {};
  return MakeError(ErrorCode::kDamaged, "there is no " + missing.path + ", but " + other.path +
                                            " holds something; remove it or move it away to start the report over");
}

// Creates the index file, so that the writer can take its lock: if two writers create the same report at the same time,
// only one of them gets the lock. The file is not opened for writing: the writer with the lock would treat this process
// as an agent that does not take the lock, and neither writer would open the report.
Error CreateIndex(const std::string& path) {
  const file::Descriptor index = report::OpenStoreFile(path, report::OpenMode::kCreateToRead);
  const int error = errno;
  return index.IsOpen() ? Error() : SystemError("cannot create " + path, error);
}

Error NotOpenError() { return MakeError(ErrorCode::kNotOpen, "no report is open"); }

Error OtherWriterError(const std::string& path, int process) {
  const std::string writer =
      process != 0 ? "process " + std::to_string(process) : "this process, or by one that cannot be seen";
  return MakeError(ErrorCode::kOtherWriter,
                   path + " is written by " + writer + "; two writers overwrite each other's records");
}

const char* NameOfByte(char byte) {
  switch (byte) {
    case '\n':
      return "a line feed";
    case '\0':
      return "a NUL";
    default:
      return "a byte 0xFF";
  }
}

Error CheckLength(std::string_view text, std::size_t record) {
  if (text.size() <= kRecordTextMax) return {};
  return {.code = ErrorCode::kTooLong,
          .record = record,
          .text = "a record of " + std::to_string(text.size()) + " bytes is too long; at most " +
                  std::to_string(kRecordTextMax) + " bytes fit into a reply"};
}

Error CheckText(std::string_view text, std::size_t record) {
  if (Error error = CheckLength(text, record); error.Failed()) return error;
  const std::size_t end = report::FindTextEnd(text);
  if (end == text.size()) return {};
  return {.code = ErrorCode::kBadText,
          .record = record,
          .text = std::string("a record contains ") + NameOfByte(text[end]) + " at offset " + std::to_string(end) +
                  ", at which readers would end it"};
}

// The number of texts that can be stored before the data file is full. The file restarts only at the end of a round. So
// the offset of a text beyond the limit would wrap to the beginning of the file.
std::size_t TextsThatFit(report::IndexHeader header, std::span<const std::string_view> texts) {
  std::size_t fitting = 0;
  for (const std::string_view text : texts) {
    const std::int64_t end = report::MarkerOffset(header.writePosition, text.size());
    if (end > kDataBytesMax) break;
    header = report::HeaderAfterRecords(header, 1, end);
    ++fitting;
  }
  return fitting;
}

// True if no text of the batch can reach the limit, wherever the ring and the data file wrap.
bool StaysBelowLimit(const report::IndexHeader& header, std::span<const std::string_view> texts) {
  constexpr std::size_t kFarFromFull = std::size_t{1} << 31;
  constexpr std::size_t kTextsMax = kFarFromFull / (kRecordTextMax + report::kLineEnd.size());
  if (header.writePosition >= kFarFromFull) return false;
  if (texts.size() < kTextsMax) return true;
  std::size_t bytes = 0;
  for (const std::string_view text : texts) bytes += text.size() + report::kLineEnd.size();
  return bytes < kFarFromFull;
}

// The texts to append so that readers return the same records again: without the line end, which an append adds, and
// with the NUL that readers have dropped.
class CopiedTexts {
 public:
  Error Add(std::string_view record, std::size_t number) {
    const std::size_t end = report::FindTextEnd(record);
    const bool is_ended = end + 1 == record.size() && record[end] != '\0';
    if (end != record.size() && !is_ended) return BadCopy(number);
    if (record.ends_with(report::kLineEnd)) {
      texts_.push_back(record.substr(0, record.size() - report::kLineEnd.size()));
    } else if (is_ended) {
      texts_.push_back(record);
    } else {
      texts_.push_back(cut_.emplace_back(std::string(record) + '\0'));
    }
    return CheckLength(texts_.back(), number);
  }

  [[nodiscard]] std::span<const std::string_view> Texts() const { return texts_; }

 private:
  static Error BadCopy(std::size_t number) {
    return {.code = ErrorCode::kBadText,
            .record = number,
            .text = "a record contains a byte after which readers end it, and more after that"};
  }

  std::deque<std::string> cut_;  // its elements do not move
  std::vector<std::string_view> texts_;
};

template <typename Texts>
std::vector<std::string_view> ViewsOf(const Texts& texts) {
  return {texts.begin(), texts.end()};
}

}  // namespace

std::string ReportPath(std::string_view name) {
  if (("/" + std::string(name) + "/").find("/../") != std::string::npos) return {};
  std::string directory;
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  return directory.append("/").append(name);
}

struct Writer::Parts {
  std::optional<report::WriterLock> lock;
  CReportFileBase store;
  report::RecordWriter records{store};
  CCriticalSection batches;  // keeps the records of a batch together, and its check of the space valid
  std::string path;
  bool is_open = false;

  Error Open(const std::string& base_path, std::uint32_t ring_size, bool may_create, WriterCheck check);
  Error Append(std::span<const std::string_view> texts);
  Error AppendCopies(std::span<const std::string_view> copies);
  Error AppendLocked(std::span<const std::string_view> texts);
  Error Confirm();
  Error CheckUntouched();
  Error ReadBack(std::uint32_t age, std::string& record);
  void Close();
};

Error Writer::Parts::Open(const std::string& base_path, std::uint32_t ring_size, bool may_create, WriterCheck check) {
  path = base_path;
  FileState index(report::IndexFileName(path));
  const FileState data(report::DataFileName(path));
  // Another writer may have created both files between the two checks: the index file first, then the data file.
  if (!index.is_there && data.is_there) index = FileState(index.path);
  if (Error error = CheckFiles(index, data, may_create); error.Failed()) return error;
  if (!index.is_there) {
    if (Error error = CreateIndex(index.path); error.Failed()) return error;
  }
  const auto search = check == WriterCheck::kLock ? report::WriterSearch::kLock : report::WriterSearch::kEveryProcess;
  lock.emplace(path, search);
  if (lock->IsHeldByAnother()) return OtherWriterError(path, lock->Process());
  const bool is_opened = store.Open(path.c_str(), ring_size);
  int error = errno;
  if (!is_opened) return SystemError("cannot open " + path, error);
  // Without locks, another writer may have opened the report after the search.
  if (lock->HasNoLocks()) lock.emplace(path, search);
  if (lock->IsHeldByAnother()) return OtherWriterError(path, lock->Process());
  error = may_create ? records.StartRing(ring_size) : 0;
  if (error != 0) return SystemError("cannot write " + index.path, error);
  if (!report::HasPlausibleRing(store.header())) {
    return MakeError(ErrorCode::kDamaged, index.path + " is damaged: its header contradicts itself");
  }
  (void)records.FinishInterrupted();
  is_open = true;
  return {};
}

Error Writer::Parts::Append(std::span<const std::string_view> texts) {
  const LockScope scope(batches);
  if (!is_open) return NotOpenError();
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (Error error = CheckText(texts[i], i); error.Failed()) return error;
  }
  return AppendLocked(texts);
}

Error Writer::Parts::AppendCopies(std::span<const std::string_view> copies) {
  const LockScope scope(batches);
  if (!is_open) return NotOpenError();
  CopiedTexts texts;
  for (std::size_t i = 0; i < copies.size(); ++i) {
    if (Error error = texts.Add(copies[i], i); error.Failed()) return error;
  }
  return AppendLocked(texts.Texts());
}

Error Writer::Parts::AppendLocked(std::span<const std::string_view> texts) {
  const std::size_t fitting =
      StaysBelowLimit(store.header(), texts) ? texts.size() : TextsThatFit(store.header(), texts);
  const report::AppendedRecords appended = records.Append(texts.first(fitting));
  if (appended.error != 0) {
    Error error = SystemError("cannot append to " + path, appended.error);
    error.record = appended.stored;
    return error;
  }
  if (fitting == texts.size()) return {};
  return {.code = ErrorCode::kFull,
          .record = fitting,
          .text = report::DataFileName(path) + " is full: a record would end beyond 4 GiB"};
}

Error Writer::Parts::Confirm() {
  const LockScope scope(batches);
  if (!is_open) return NotOpenError();
  const int error = records.ConfirmHeader();
  return error != 0 ? SystemError("cannot write the header of " + path, error) : Error();
}

Error Writer::Parts::CheckUntouched() {
  const LockScope scope(batches);
  if (!is_open) return NotOpenError();
  struct stat index = {};
  struct stat data = {};
  const bool is_there = file::StatusOf(report::IndexFileName(path).c_str(), index) == 0 &&
                        file::StatusOf(report::DataFileName(path).c_str(), data) == 0;
  if (!is_there || !records.IsOpenOn(index, data)) {
    return MakeError(ErrorCode::kNotFound, path + " was removed, or replaced by another report");
  }
  if (records.HasHeaderInFile()) return {};
  return MakeError(ErrorCode::kOtherWriter, path + " was changed by another program");
}

Error Writer::Parts::ReadBack(std::uint32_t age, std::string& record) {
  const LockScope scope(batches);
  if (!is_open) return NotOpenError();
  if (records.ReadBack(age, record)) return {};
  return MakeError(ErrorCode::kBadArgument, path + " has no record of age " + std::to_string(age));
}

void Writer::Parts::Close() {
  is_open = false;
  store.Close();
  lock.reset();
}

Writer::Writer() = default;
Writer::~Writer() = default;

Error Writer::Open(const std::string& path, std::uint32_t ring_size, WriterCheck check) {
  if (ring_size == 0 || ring_size > report::kMaxRecordUnlimited) {
    return sdk::WithoutExceptions([&] {
      return MakeError(ErrorCode::kBadArgument, "a ring of " + std::to_string(ring_size) + " records; 1 to " +
                                                    std::to_string(report::kMaxRecordUnlimited) + " are possible");
    });
  }
  return OpenGuarded(path, ring_size, true, check);
}

Error Writer::OpenExisting(const std::string& path) { return OpenGuarded(path, 0, false, WriterCheck::kEveryProcess); }

Error Writer::OpenGuarded(const std::string& path, std::uint32_t ring_size, bool may_create, WriterCheck check) {
  Close();
  return sdk::WithoutExceptions([&]() -> Error {
    if (Error error = CheckPath(path); error.Failed()) return error;
    parts_ = std::make_unique<Parts>();  // a new store object, because one that was open before has an old header
    Error error = parts_->Open(path, ring_size, may_create, check);
    if (error.Failed()) parts_->Close();
    return error;
  });
}

Error Writer::Append(std::string_view text) { return Append(std::span(&text, 1)); }

Error Writer::Append(std::span<const std::string_view> texts) {
  return sdk::WithoutExceptions([&] { return parts_ != nullptr ? parts_->Append(texts) : NotOpenError(); });
}

Error Writer::Append(std::span<const std::string> texts) {
  return sdk::WithoutExceptions([&] { return Append(std::span<const std::string_view>(ViewsOf(texts))); });
}

Error Writer::Append(std::initializer_list<std::string_view> texts) {
  return Append(std::span<const std::string_view>(texts.begin(), texts.size()));
}

Error Writer::AppendCopies(std::span<const std::string_view> records) {
  return sdk::WithoutExceptions([&] { return parts_ != nullptr ? parts_->AppendCopies(records) : NotOpenError(); });
}

Error Writer::Confirm() {
  return sdk::WithoutExceptions([&] { return parts_ != nullptr ? parts_->Confirm() : NotOpenError(); });
}

Error Writer::CheckUntouched() {
  return sdk::WithoutExceptions([&] { return parts_ != nullptr ? parts_->CheckUntouched() : NotOpenError(); });
}

Error Writer::ReadBack(std::uint32_t age, std::string& record) {
  return sdk::WithoutExceptions([&] { return parts_ != nullptr ? parts_->ReadBack(age, record) : NotOpenError(); });
}

void Writer::Close() {
  if (parts_ != nullptr) parts_->Close();
}

bool Writer::IsOpen() const { return parts_ != nullptr && parts_->is_open; }

std::uint32_t Writer::RingSize() const { return IsOpen() ? parts_->store.header().maxRecord : 0; }

std::uint32_t Writer::RecordCount() const { return IsOpen() ? parts_->store.header().elementCount : 0; }

}  // namespace qx
