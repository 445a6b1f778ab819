#include "reportfile/ReportFileBase.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

#include "debug/Debug.h"
#include "reportfile/RecordReader.h"
#include "reportfile/StoreIo.h"

using qx::LockScope;
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

// Reads `value` only if all its bytes are there.
template <typename T>
bool ReadWholeAt(std::FILE* file, std::int64_t offset, T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  T read;
  if (ReadAt(file, offset, &read, sizeof read).bytes != sizeof read) return false;
  value = read;
  return true;
}

// Writes the record and, in the same call, the end marker behind it. A marker that was cut short does no harm: only
// what a slot points at is ever read.
bool WriteRecordAt(std::FILE* file, std::uint32_t offset, std::string_view text) {
  return WriteAt(file, offset, text, kLineEndAndMarker) >= text.size() + kLineEnd.size();
}

void CloseStream(std::FILE*& stream) {
  if (stream == nullptr) return;
  (void)std::fclose(stream);  // nothing is ever buffered in it, so there is nothing left that could fail to be written
  stream = nullptr;
}

}  // namespace

CReportFileBase::CReportFileBase() {
  static_assert(std::is_standard_layout_v<CReportFileBase>);
  static_assert(offsetof(CReportFileBase, data_file_) == 0);
  static_assert(offsetof(CReportFileBase, index_file_) == 8);
  static_assert(offsetof(CReportFileBase, header_) == 16);
  static_assert(offsetof(CReportFileBase, lock_) == 40);
  static_assert(sizeof(CReportFileBase) == 96);
}

// The lock's own destruction gives it free, should the caller still hold it.
CReportFileBase::~CReportFileBase() { Close(); }

bool CReportFileBase::OpenBoth(const char* path, OpenMode mode) {
  index_file_ = StreamOf(OpenRegularFile(IndexFileName(path), mode), mode);
  const int index_error = errno;
  data_file_ = StreamOf(OpenRegularFile(DataFileName(path), mode), mode);
  if (index_file_ == nullptr) errno = index_error;
  return IsOpen();
}

bool CReportFileBase::Open(const char* path, unsigned int maxRecords) {
  if (path == nullptr || *path == '\0') return false;
  Close();
  if (OpenBoth(path, OpenMode::kUpdate)) {
    (void)readPositions();  // a store that was never written keeps what the object holds
    TraceHeader(header_);
    return true;
  }
  // Half a store is of no use: without its index the data cannot be found, without its data the index points nowhere.
  Close();
  header_.maxRecord = RingSize(maxRecords);
  return OpenBoth(path, OpenMode::kCreate);
}

bool CReportFileBase::OpenRead(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  Close();
  if (!OpenBoth(path, OpenMode::kRead)) return false;
  header_ = IndexHeader();
  (void)readPositions();  // a store that was never written reads as empty
  return true;
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

  // In this order, so that a reader or a crash between two of the calls never finds a slot without its record.
  if (!WriteRecordAt(data_file_, record_offset, record)) return false;
  if (!setPositionInIndexFile(SlotForNewRecord(header_), record_offset)) return false;

  // The record is indexed now: no failure below this line changes the result.
  AdvanceRing(header_);
  header_.writePosition = Low32(MarkerOffset(record_offset, record.size()));
  header_.fileEnd = std::max(header_.fileEnd, header_.writePosition);
  ++header_.elementCount;
  if (DataFileRestarts(header_)) RestartDataFile(header_);
  (void)writePositionsToFile();  // the next record writes it again
  return true;
}

bool CReportFileBase::readLine(std::string& out, unsigned int slot) {
  const LockScope scope(lock_);
  if (!IsOpen() || slot >= header_.highestIndex) return false;
  std::string text;
  bool too_long = false;
  const int error = ReadRecord(index_file_, data_file_, slot, std::string::npos, &text, &too_long);
  if (error != 0) {
    errno = error;
    return false;
  }
  out = std::move(text);
  return true;
}

long CReportFileBase::GetDataFileSize() {
  struct stat status;
  if (data_file_ == nullptr || qx::file::StatusOf(fileno(data_file_), status) != 0) return 0;
  return status.st_size;
}

void CReportFileBase::printAllRecords() {
  std::string text;
  for (std::uint32_t i = 0; i < header_.highestIndex; ++i) {
    (void)readLine(text, SlotOfLogical(header_, i));  // Quirk: a record that cannot be read prints the previous one
    std::printf("%d::%s", static_cast<int>(i), text.c_str());
  }
  std::printf("===\n");
}

int CReportFileBase::readPositions() {
  if (index_file_ == nullptr) return -1;
  (void)ReadWholeAt(index_file_, 0, header_);
  return 0;
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
  if (index_file_ != nullptr) (void)ReadWholeAt(index_file_, SlotOffset(slot), position);
  return position;
}
