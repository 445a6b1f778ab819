// The part of CDebug that writes to its second target, the ring file.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "debug/Debug.h"
#include "debug/ErrnoScope.h"
#include "debug/NoCancelScope.h"
#include "debug/TraceText.h"

using qx::LockScope;
using qx::debug::ErrnoScope;
using qx::debug::NoCancelScope;
using Failure = qx::debug::RingBufferSink::Failure;

namespace {

// A text longer than this part of the ring is cut, so that one entry does not replace all others.
constexpr std::size_t kLongTextShare = 10;

// The space that a long entry needs in addition to its text: header, line feed, NUL, and a reserve.
constexpr std::size_t kLongEntryExtraBytes = 145;
static_assert(kLongEntryExtraBytes >= qx::debug::kEntryHeaderCharsMax + 2);

struct FreeBuffer {
  void operator()(char* buffer) const noexcept { std::free(buffer); }
};

}  // namespace

bool CDebug::InitRingBuffer(const char* path, std::uint32_t size) {
  const ErrnoScope errno_scope;
  const NoCancelScope no_cancel;
  const LockScope scope(lock_);
  try {
    ring_path_ = path;
  } catch (const std::bad_alloc&) {
    LeaveRing();
    PrintToLogFile("\n### InitRingBuffer(): open of %s failed (errno=%d; %s) ###", path, ENOMEM, std::strerror(ENOMEM));
    return false;
  }
  ring_size_ = size;
  return SetUpRing();
}

bool CDebug::SetUpRing() {
  char header[qx::debug::kEntryHeaderCharsMax + 1];
  const std::size_t header_length = SetEntryHeader(header, sizeof header, nullptr);
  const auto result = ring_.Open({.path = ring_path_.c_str(),
                                  .size = ring_size_,
                                  .start_time = qx::debug::WithoutLineFeeds(start_time_),
                                  .entry_header = {header, header_length}});
  if (result.failure != Failure::kNone) {
    LeaveRing();
    TraceRingFailure(result);
    return false;
  }
  SetTarget(kTargetRingBuffer);
  if (ring_.IsNew()) {
    WriteLogHeader(kTargetRingBuffer);
    ring_.LeaveGap();
  }
  PrintIt(kTargetRingBuffer, "\n### Start of work cycle. (%08d) ###", static_cast<int>(ring_.Opens()));
  return ring_.IsOpen();  // the file may have been cut meanwhile
}

// Closes the ring. From now on entries for the ring are written to the log.
void CDebug::LeaveRing() noexcept {
  ring_.Close();
  if (target_.load(std::memory_order_relaxed) == kTargetRingBuffer) SetTarget(kTargetLogFile);
}

void CDebug::TraceRingFailure(const qx::debug::RingBufferSink::OpenResult& result) {
  const char* const path = ring_path_.c_str();
  const int error = result.error;
  if (result.failure == Failure::kOpen) {
    PrintToLogFile("\n### InitRingBuffer(): open of %s failed (errno=%d; %s) ###", path, error, std::strerror(error));
  } else if (result.failure == Failure::kWriteHeader) {
    PrintToLogFile("\n### InitRingBuffer(): write haeder to %s failed ###", path);
  } else if (result.failure == Failure::kWriteBlankBlock) {
    PrintToLogFile("\n### InitRingBuffer(): write m_InternalDebugBuffer to %s failed ###", path);
  } else if (result.failure == Failure::kWriteBlocks) {
    PrintToLogFile("\n### InitRingBuffer(): (2) write m_InternalDebugBuffer to %s failed ###", path);
  } else {
    PrintToLogFile("\n### InitRingBuffer(): mmap of %s failed (errno=%d; %s) ###", path, error, std::strerror(error));
  }
}

void CDebug::TraceToRingBuffer(const char* format, std::va_list args, const char* module) {
  if (!ring_.IsOpen() || format == nullptr) return;
  const ErrnoScope errno_scope;
  std::va_list again;
  va_copy(again, args);
  const Entry entry = FormatEntry(format, args, module);
  if (entry.whole_length == 0) {
    PutIntoRing(entry);
  } else {
    errno = errno_scope.Saved();  // for "%m" in the format
    WriteLongEntry(entry, format, again);
  }
  va_end(again);
}

// Writes a text of more than 1024 characters. `entry` has the header and the first 1024 characters.
void CDebug::WriteLongEntry(const Entry& entry, const char* format, std::va_list args) {
  if (entry.whole_length > ring_.Size() / kLongTextShare) {
    PutIntoRing(TruncatedEntry(entry, "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n"));
    return;
  }
  const std::unique_ptr<char, FreeBuffer> buffer(
      static_cast<char*>(std::malloc(entry.whole_length + kLongEntryExtraBytes)));
  if (buffer == nullptr) {
    PutIntoRing(TruncatedEntry(entry, "\n## ERROR: No memory: Output Truncated!\n"));
    return;
  }
  char* const text = buffer.get() + entry.header_length;
  std::memcpy(buffer.get(), entry.text.data(), entry.header_length);
  if (std::vsnprintf(text, entry.whole_length + 1, qx::debug::WithoutLeadingLineFeeds(format), args) < 0) *text = '\0';
  std::size_t length = std::strlen(text);
  if (length == 0 || text[length - 1] != '\n') text[length++] = '\n';
  PutIntoRing({{buffer.get(), entry.header_length + length}, entry.header_length, 0});
}

// Adds `why` after the 1024 characters that were kept.
CDebug::Entry CDebug::TruncatedEntry(const Entry& entry, std::string_view why) noexcept {
  const std::size_t kept = entry.header_length + kEntryTextCharsMax;
  return {{entry_, kept + why.copy(entry_ + kept, kTruncationCharsMax)}, entry.header_length, 0};
}

void CDebug::PutIntoRing(const Entry& entry) {
  if (ring_.Fits(entry.text.size())) {
    ring_.Write(entry.text);
  } else {
    PutAfterWrap(entry);
  }
}

// Wraps the ring and writes the entry. While the header block of a new cycle is being written, the ring must not wrap
// again: an entry that does not fit is dropped then.
void CDebug::PutAfterWrap(Entry entry) {
  if (ring_.IsWrapping()) return;
  char kept[kEntryBytesMax];  // the lines of the header block are formatted in entry_
  if (entry.text.data() == entry_) entry.text = {kept, entry.text.copy(kept, sizeof kept)};
  if (WrapRing(entry.text.size())) {
    ring_.Write(entry.text);
  } else {
    GiveUpRing(entry);
  }
}

bool CDebug::WrapRing(std::size_t entry_size) {
  if (!ring_.BeginWrap()) return false;
  WriteLogHeader(kTargetRingBuffer);
  ring_.EndWrap(entry_size);
  return true;
}

// Closes a ring file that was truncated while it was mapped, because a store after its end would kill the process. The
// entry is written to the log.
void CDebug::GiveUpRing(const Entry& entry) {
  const NoCancelScope no_cancel;
  LeaveRing();
  PrintToLogFile("\n### TraceToRingBuffer(): %s has been cut --> proceed without it ###", ring_path_.c_str());
  if (log_.IsOpen()) log_.Write(entry.text, entry.header_length);
}

void CDebug::MarkRingInitEnd() {
  if (!ring_.IsOpen() || !ring_.CanKeepInit()) return;
  PrintIt(kTargetRingBuffer, "\n### End of initialization. ###");
  ring_.MarkInitEnd();
}
