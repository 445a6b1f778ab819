// Writes the log file: one entry after another. When the file has reached its size, writing continues at the end of its
// head.
//
// The head is the content of the file at MarkInitEnd (the log header and the traces of the start); it is never
// overwritten. A wrap clears nothing, so the rest of the previous cycle follows the newest entry. A reader finds the
// end of the newest entry by the "------ WRAP -----" line and the stamps. This class does not read the file back.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace qx::debug {

// Writes entries to a log file that wraps in place.
//
// Threads: the owner of the trace facility's lock.
// Owns: the open file.
// Failure: writing never reports a failure; an entry that does not fit on the disk is lost. If the file cannot be
// opened, or a wrap cannot set the position, the system log gets a message.
class LogFileSink {
 public:
  LogFileSink() noexcept = default;
  ~LogFileSink() { Close(); }
  LogFileSink(const LogFileSink&) = delete;
  LogFileSink& operator=(const LogFileSink&) = delete;

  // Closes the file and sets every counter to its initial value.
  void Reset() noexcept;

  // Creates or truncates "DIRECTORY/log.NAME" and starts to count at 0. False: no file is open, and the system log has
  // a message.
  bool Open(const char* directory, const char* lower_case_name, std::uint32_t max_size);
  void Close() noexcept;
  [[nodiscard]] bool IsOpen() const noexcept { return file_.load(std::memory_order_relaxed) != nullptr; }

  // Writes `entry`, whose first `header_length` bytes are its header, and wraps if more than the maximum size is
  // written now.
  void Write(std::string_view entry, std::size_t header_length) noexcept;

  // Makes the present content of the file its head: after a later wrap, writing continues at the end of the head.
  void MarkInitEnd() noexcept;

  [[nodiscard]] const char* Path() const noexcept { return path_; }
  [[nodiscard]] std::uint32_t MaxSize() const noexcept { return max_size_; }

 private:
  bool SetPath(const char* directory, const char* lower_case_name) noexcept;
  void WriteCounted(std::string_view bytes) noexcept;
  void Wrap(std::string_view header) noexcept;

  // Null while closed, so that an object in zeroed memory is closed. Atomic, because the trace object is used after its
  // destruction as well: the compiler would drop a plain store in the destructor as dead.
  std::atomic<std::FILE*> file_{nullptr};
  int descriptor_ = -1;  // of file_
  char path_[256] = {};
  std::uint32_t max_size_ = 0;
  long wrap_position_ = 0;
  std::uint32_t bytes_at_init_end_ = 0;
  std::uint32_t byte_count_ = 0;  // since the file was opened or last wrapped
  std::int32_t wrap_cycle_ = 0;
};

}  // namespace qx::debug
