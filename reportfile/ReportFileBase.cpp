#include "reportfile/ReportFileBase.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>
#include <type_traits>
#include <utility>

#include "debug/Debug.h"
#include "reportfile/RecordReader.h"
#include "reportfile/StoreIo.h"

using qx::LockScope;
using qx::file::Progress;
using qx::file::StatusOf;
using qx::file::Truncate;
using namespace qx::report;

namespace {

void TraceHeader(const IndexHeader& header) {
  QX_TRACE(5, "\nRecordFileBase      : Initiate");
  QX_TRACE(5, "\nRecordFileBase      :   Write Position %ld", static_cast<long>(header.writePosition));
  QX_TRACE(5, "\nRecordFileBase      :   File End       %ld", static_cast<long>(header.fileEnd));
  QX_TRACE(5, "\nRecordFileBase      :   elementCount   %ld", static_cast<long>(header.elementCount));
  QX_TRACE(5, "\nRecordFileBase      :   max Record     %ld", static_cast<long>(header.maxRecord));
  QX_TRACE(5, "\nRecordFileBase      :   Highest Index  %ld", static_cast<long>(header.highestIndex));
  QX_TRACE(5, "\nRecordFileBase      :   Oldest Index   %ld", static_cast<long>(header.oldestIndex));
}

template <typename T>
std::string_view BytesOf(const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// Reads `value` if the file has all its bytes; otherwise `value` is unchanged. Returns the error number of a read that
// failed, otherwise 0.
template <typename T>
int ReadValueAt(std::FILE* file, std::int64_t offset, T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  T read;
  const Progress progress = ReadAt(file, offset, &read, sizeof read);
  if (progress.bytes == sizeof read) value = read;
  return progress.error;
}

// Writes the record and, in the same call, the end marker after it. A marker that was cut short does no harm, because
// readers read only texts that a slot leads to.
bool WriteRecordAt(std::FILE* file, std::uint32_t offset, std::string_view text) {
  return WriteAt(file, offset, text, kLineEndAndMarker) >= text.size() + kLineEnd.size();
}

// Writes header and slot 0 in one write. With two writes, a kill between them could leave slot 0 after 24 zero bytes,
// which read as a header of a ring without slots. A write that is cut short is undone.
bool WriteFirstSlot(std::FILE* index_file, std::int64_t size, const IndexHeader& header, std::uint32_t position) {
  if (WriteAt(index_file, 0, BytesOf(header), BytesOf(position)) == sizeof header + sizeof position) return true;
  const int error = errno;
  (void)Truncate(fileno(index_file), size);  // if this fails, the part of a header counts as no header
  errno = error;
  return false;
}

// Runs `action`; if memory runs out, the result is false, with ENOMEM. No exception may leave the store, because agents
// are built by others. The forced unwinding of a cancelled thread is not a std::exception, and passes.
template <typename Action>
bool WithoutExceptions(Action action) {
  try {
    return action();
  } catch (const std::exception&) {
    errno = ENOMEM;
    return false;
  }
}

void CloseStream(std::FILE*& stream) {
  if (stream == nullptr) return;
  (void)std::fclose(stream);  // nothing is buffered in the stream, so no write can fail here
  stream = nullptr;
}

}  // namespace

CReportFileBase::CReportFileBase() {
  static_assert(std::is_standard_layout_v<CReportFileBase>);
  static_assert(offsetof(CReportFileBase, data_file_) == 0);
  static_assert(offsetof(CReportFileBase, index_file_) == 8);
  static_assert(offsetof(CReportFileBase, header_) == 16);
  static_assert(offsetof(CReportFileBase, lock_) == 40);
  // 96 bytes on x86-64, 104 on arm64.
  static_assert(sizeof(CReportFileBase) == 40 + sizeof(CCriticalSection));
}

// The lock's own destructor releases it if the caller still holds it.
CReportFileBase::~CReportFileBase() { Close(); }

bool CReportFileBase::Open(const char* path, unsigned int maxRecords) {
  if (path == nullptr || *path == '\0') return false;
  Close();
  return WithoutExceptions([&] {
    const StoreStreams streams = OpenToWrite(path);
    data_file_ = streams.data;
    index_file_ = streams.index;
    if (!IsOpen()) return false;
    if (streams.is_new) {
      header_.maxRecord = RingSize(maxRecords);
      return true;
    }
    if (readPositions() != 0) return CloseAfterReadError();  // if the file is too short, header_ is unchanged
    TraceHeader(header_);
    return true;
  });
}

bool CReportFileBase::OpenRead(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  Close();
  return WithoutExceptions([&] {
    const StoreStreams streams = OpenToRead(path);
    data_file_ = streams.data;
    index_file_ = streams.index;
    if (!IsOpen()) return false;
    IndexHeader header;  // a short file reads as an empty store
    errno = ReadValueAt(index_file_, 0, header);
    if (errno != 0) return CloseAfterReadError();
    header_ = header;
    return true;
  });
}

bool CReportFileBase::CloseAfterReadError() {
  const int error = errno;
  Close();
  errno = error;
  return false;
}

bool CReportFileBase::Close() {
  CloseStream(data_file_);
  CloseStream(index_file_);
  return true;
}

bool CReportFileBase::writeLine(const char* text) {
  const LockScope scope(lock_);
  if (!IsOpen()) return false;
  const std::string_view record = text != nullptr ? text : "";
  const std::uint32_t record_offset = header_.writePosition;

  // Record, slot, header: in this order a reader, or a crash between two writes, never finds a slot without its record.
  if (!WriteRecordAt(data_file_, record_offset, record)) return false;
  const std::uint32_t slot = SlotForNewRecord(header_);
  const IndexHeader after = HeaderAfterRecords(header_, 1, MarkerOffset(record_offset, record.size()));
  std::int64_t index_size = 0;
  if (slot == 0 && LacksHeader(index_file_, index_size)) {
    if (!WriteFirstSlot(index_file_, index_size, after, record_offset)) return false;
    header_ = after;
    return true;
  }
  if (!setPositionInIndexFile(slot, record_offset)) return false;

  // The record is indexed now, so the result is true even if the header cannot be written.
  header_ = after;
  (void)writePositionsToFile();  // the next record writes it again
  return true;
}

bool CReportFileBase::readLine(std::string& out, unsigned int slot) {
  const LockScope scope(lock_);
  if (!IsOpen() || slot >= header_.highestIndex) return false;
  return WithoutExceptions([&] {
    std::string text;
    bool too_long = false;
    const int error = ReadRecord(index_file_, data_file_, slot, std::string::npos, &text, &too_long);
    if (error == 0) out = std::move(text);
    if (error != 0) errno = error;
    return error == 0;
  });
}

long CReportFileBase::GetDataFileSize() {
  struct stat status;
  if (data_file_ == nullptr || StatusOf(fileno(data_file_), status) != 0) return 0;
  return status.st_size;
}

void CReportFileBase::printAllRecords() {
  std::string text;
  for (std::uint32_t i = 0; i < header_.highestIndex; ++i) {
    errno = 0;
    const bool is_read = readLine(text, SlotOfLogical(header_, i));
    if (!is_read && errno == ENOMEM) break;
    std::printf("%d::%s", static_cast<int>(i), text.c_str());  // Quirk: after a failed read the previous text
  }
  std::printf("===\n");
}

int CReportFileBase::readPositions() {
  if (index_file_ == nullptr) return -1;
  const int error = ReadValueAt(index_file_, 0, header_);
  if (error != 0) errno = error;
  return error == 0 ? 0 : -1;
}

int CReportFileBase::writePositionsToFile() {
  if (index_file_ == nullptr) return -1;
  return WriteAt(index_file_, 0, BytesOf(header_)) == sizeof header_ ? 0 : -1;
}

bool CReportFileBase::setPositionInIndexFile(unsigned int slot, unsigned int position) {
  return index_file_ != nullptr && WriteAt(index_file_, SlotOffset(slot), BytesOf(position)) == sizeof position;
}

unsigned int CReportFileBase::getPositionFromIndexFile(unsigned int slot) {
  std::uint32_t position = 0;
  if (index_file_ != nullptr) (void)ReadValueAt(index_file_, SlotOffset(slot), position);
  return position;
}
