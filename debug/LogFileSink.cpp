#include "debug/LogFileSink.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "base/File.h"
#include "debug/DebugTraceConfig.h"
#include "debug/EntryHeader.h"
#include "debug/OwnFile.h"

namespace qx::debug {

namespace {

constexpr mode_t kLogFileMode = 0640;  // less the umask

// Opens the file as fopen with "w+", but only a file of this process's own (OwnFile.h): otherwise an ordinary user who
// prepared the log could read the traces.
std::FILE* OpenTruncated(const char* path) {
  OwnFile log = OpenOwnFile(path, kLogFileMode);
  if (!log.file.IsOpen() || file::Truncate(log.file.Number(), 0) != 0) return nullptr;
  std::FILE* const stream = ::fdopen(log.file.Number(), "w+");
  if (stream != nullptr) (void)log.file.Release();  // the stream closes it
  return stream;
}

}  // namespace

void LogFileSink::Reset() noexcept {
  Close();
  path_[0] = '\0';
  max_size_ = kLogMaxSizeDefault;
  wrap_position_ = 0;
  bytes_at_init_end_ = byte_count_ = 0;
  wrap_cycle_ = 0;
}

bool LogFileSink::Open(const char* directory, const char* lower_case_name, std::uint32_t max_size) {
  Reset();
  max_size_ = max_size;
  if (SetPath(directory, lower_case_name)) file_.store(OpenTruncated(path_), std::memory_order_relaxed);
  if (IsOpen()) {
    descriptor_ = ::fileno(file_.load(std::memory_order_relaxed));
    return true;
  }
  ::syslog(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", path_);
  return false;
}

void LogFileSink::Close() noexcept {
  std::FILE* file = file_.exchange(nullptr, std::memory_order_relaxed);
  if (file != nullptr) std::fclose(file);
}

// False if the path is too long: a cut path would name another file.
bool LogFileSink::SetPath(const char* directory, const char* lower_case_name) noexcept {
  const int length = std::snprintf(path_, sizeof path_, "%s/log.%s", directory, lower_case_name);
  return length >= 0 && static_cast<std::size_t>(length) < sizeof path_;
}

void LogFileSink::Write(std::string_view entry, std::size_t header_length) noexcept {
  WriteCounted(entry);
  if (byte_count_ > max_size_) Wrap(entry.substr(0, header_length));
}

void LogFileSink::MarkInitEnd() noexcept {
  if (!IsOpen()) return;
  wrap_position_ = ::lseek(descriptor_, 0, SEEK_CUR);
  bytes_at_init_end_ = byte_count_;
}

// Does not use the stream's buffer, so that an entry is one system call, and is in the file when this call returns.
void LogFileSink::WriteCounted(std::string_view bytes) noexcept {
  byte_count_ += static_cast<std::uint32_t>(file::Write(descriptor_, bytes).bytes);
}

// The WRAP line shows the count before the line itself is written: the size of the head.
void LogFileSink::Wrap(std::string_view header) noexcept {
  if (::lseek(descriptor_, wrap_position_, SEEK_SET) < 0) {
    const int error = errno;
    ::syslog(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", path_, error);
    (void)::lseek(descriptor_, 0, SEEK_SET);  // if this fails as well, the position does not change
  }
  ++wrap_cycle_;
  byte_count_ = bytes_at_init_end_;

  char line[kEntryHeaderCharsMax + 160];
  const int length = std::snprintf(
      line, sizeof line, "%.*s------ WRAP ----- Cycle=%d, CntInitEnd=%u, CurrentByteCnt=%u (MaxCnt=%u)\n",
      static_cast<int>(header.size()), header.data(), wrap_cycle_, bytes_at_init_end_, byte_count_, max_size_);
  if (length > 0) WriteCounted({line, static_cast<std::size_t>(length)});
}

}  // namespace qx::debug
