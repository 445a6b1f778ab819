// Writes the ring file: entries are copied into a mapped file of fixed size. When the file is full, writing continues
// after its preserved part.
//
// The file stays after the process, even if the process is killed in the middle of an entry. A terminator line follows
// the newest entry, and the header has the offset of this line. An entry becomes visible in this order: its bytes from
// the 17th on and the new terminator after them, then its first 16 bytes in one store over the old terminator, then the
// new write position in one store. So the header always has the offset of the terminator, or of an entry that was just
// completed and has the terminator after it. docs/trace-ring.md describes the file for readers.
//
// This class does not write the header block at the beginning of a new cycle. The writer of the entries writes it
// between BeginWrap and EndWrap.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "debug/RingFormat.h"

namespace qx::debug {

// Writes entries to a mapped ring file.
//
// Threads: the owner of the trace facility's lock. Other processes may read the file at any time; one process writes.
// Owns: the descriptor and the mapping. Failure: Open returns the step that failed, and leaves the ring closed; writing
// cannot fail. If the file is truncated while it is mapped, the next wrap notices it. Until then, a store after the new
// end of the file kills the process (SIGBUS).
class RingBufferSink {
 public:
  // The step of Open that failed.
  enum class Failure { kNone, kOpen, kWriteHeader, kWriteBlankBlock, kWriteBlocks, kMap };

  struct OpenResult {
    Failure failure = Failure::kNone;
    int error = 0;  // the error number of a failure
  };

  struct Source {
    const char* path;
    std::uint32_t size;             // of the whole file, at least kRingBytesMin
    std::string_view start_time;    // without a line feed
    std::string_view entry_header;  // the beginning of each block of a new file
  };

  RingBufferSink() noexcept = default;
  ~RingBufferSink() { Close(); }
  RingBufferSink(const RingBufferSink&) = delete;
  RingBufferSink& operator=(const RingBufferSink&) = delete;

  // Opens the ring file, counts the opening and continues at its write position. A missing file is created; one of
  // another size, or one that another user controls, is replaced by a new one.
  // Anything but a regular file is refused.
  [[nodiscard]] OpenResult Open(const Source& source) noexcept;

  // Closes the file and sets every counter to its initial value.
  void Close() noexcept;

  [[nodiscard]] bool IsOpen() const noexcept { return map_.load(std::memory_order_relaxed) != nullptr; }
  [[nodiscard]] int Descriptor() const noexcept { return IsOpen() ? descriptor_ : -1; }
  [[nodiscard]] bool IsNew() const noexcept { return is_new_; }
  [[nodiscard]] std::uint32_t Opens() const noexcept { return opens_; }
  [[nodiscard]] std::uint32_t Size() const noexcept { return size_; }

  // Whether an entry of `size` bytes and the terminator fit after the write position.
  [[nodiscard]] bool Fits(std::size_t size) const noexcept {
    return size <= size_ && position_ + size + kRingTerminator.size() <= size_;
  }

  // Appends an entry that fits and is longer than the terminator.
  void Write(std::string_view entry) noexcept;

  // Ends the cycle: the rest of the file becomes dots, and writing continues at the offset of the first entry, for the
  // header block. False: the file has become shorter than its mapping, and must be closed.
  [[nodiscard]] bool BeginWrap() noexcept;
  [[nodiscard]] bool IsWrapping() const noexcept { return is_wrapping_; }

  // Called after the header block is written. Writing continues at the end of the preserved part or, if nothing is
  // preserved, after the header block and a gap. If `entry_size` bytes do not fit there, it continues at the offset of
  // the first entry.
  void EndWrap(std::size_t entry_size) noexcept;

  // Leaves a gap after the header block. The entries begin at the start of a block of the file.
  void LeaveGap() noexcept;

  // Whether the entries of the start can be preserved: the ring has not wrapped since it was opened, and more than 1
  // MiB is left.
  [[nodiscard]] bool CanKeepInit() const noexcept;

  // From now on wraps preserve everything before the write position.
  void MarkInitEnd() noexcept { wrap_start_ = position_; }

 private:
  [[nodiscard]] OpenResult Create(const Source& source) noexcept;
  [[nodiscard]] Failure WriteWhole(const Source& source) const noexcept;
  [[nodiscard]] OpenResult Map(const Source& source) noexcept;
  void TakeOver(const Source& source) noexcept;
  [[nodiscard]] std::size_t StoredPosition() const noexcept;
  [[nodiscard]] char* At(std::size_t offset) const noexcept { return map_.load(std::memory_order_relaxed) + offset; }
  [[nodiscard]] std::string_view Bytes(std::size_t offset, std::size_t size) const noexcept {
    return {At(offset), size};
  }
  void StoreNumber(std::size_t offset, std::uint32_t number) noexcept;
  void EraseStaleTerminator() noexcept;

  // Null while closed, so that an object in zeroed memory is closed. Atomic, because the trace object is used after its
  // destruction as well: the compiler would drop a plain store in the destructor as dead.
  std::atomic<char*> map_{nullptr};
  int descriptor_ = -1;
  std::uint32_t size_ = 0;
  std::size_t position_ = 0;
  std::size_t wrap_start_ = 0;  // 0: nothing is preserved
  std::uint32_t wraps_ = 0;
  std::uint32_t opens_ = 0;
  std::size_t stale_terminator_ = 0;  // the offset of the ended cycle's terminator, or 0
  bool is_new_ = false;
  bool is_wrapping_ = false;
  bool has_wrapped_ = false;  // since it was opened
};

}  // namespace qx::debug
