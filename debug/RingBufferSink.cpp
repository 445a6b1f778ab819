#include "debug/RingBufferSink.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <syslog.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/File.h"
#include "debug/OwnFile.h"

namespace qx::debug {

namespace {

constexpr mode_t kRingFileMode = 0700;  // less the umask
constexpr std::size_t kSpaceToKeepInit = 0x100000;
constexpr std::size_t kGapBytes = 2048;
constexpr std::size_t kAtomicBytes = 16;
static_assert(kRingTerminator.size() == kAtomicBytes && kRingNumberDigits == kAtomicBytes);

// Stores sixteen bytes at any address in one store: a process can be killed before or after the store, never inside. A
// reader on another processor may see it in two parts, because neither x86-64 nor arm64 guarantees more for every
// address.
using SixteenBytes __attribute__((vector_size(kAtomicBytes), aligned(1), may_alias)) = unsigned char;

void StoreAtOnce(char* to, const char* from) noexcept {
  SixteenBytes bytes;
  std::memcpy(&bytes, from, sizeof bytes);
  *reinterpret_cast<volatile SixteenBytes*>(to) = bytes;
}

// Keeps the order of the stores (release order), for readers in other processes and in case the process is killed. An
// x86-64 processor always keeps this order, so there the fence affects only the compiler; on arm64 it is an
// instruction.
void KeepStoreOrder() noexcept { std::atomic_thread_fence(std::memory_order_release); }

// Writes all bytes. False with the error number in errno.
bool WriteAll(int descriptor, const char* bytes, std::size_t size) noexcept {
  return !file::Write(descriptor, {bytes, size}).Failed();
}

// Opens the ring file, or creates one. On failure the descriptor is not open, and errno has the reason. A file of
// another size is removed from the directory, not cut: another process may have it mapped, and a store after its end
// would kill that process. If a process is killed while it creates the file, the file that stays has another size as
// well.
file::Descriptor OpenOrCreate(const char* path, std::uint32_t size, bool& is_new) noexcept {
  OwnFile ring = OpenOwnFile(path, kRingFileMode, size);
  is_new = ring.is_new;
  if (ring.is_refused) ::syslog(LOG_ERR, "ERROR: %s is refused (errno=%d) --> proceed without it\n", path, ring.error);
  errno = ring.error;
  return std::move(ring.file);
}

// Reserves disk blocks for the whole file, without a change of its size: a store into a mapped hole of a full disk
// would kill the process. True also if the file system cannot reserve blocks.
bool ReserveBlocks(int descriptor, std::uint32_t size) noexcept {
  int result = 0;
  do {
    result = ::fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, size);
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno == EOPNOTSUPP || errno == ENOSYS;
}

// True if the file size limit of the process allows `size`. A write beyond the limit would raise a signal that ends the
// process.
bool IsWithinFileLimit(std::uint32_t size) noexcept {
  rlimit limit{};
  return ::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= size;
}

bool WriteHeader(int descriptor, const RingBufferSink::Source& source) noexcept {
  char header[kRingHeaderBytes];
  FormatRingHeader({.path = source.path,
                    .first_open = source.start_time,
                    .last_open = source.start_time,
                    .opens = 1,
                    .wraps = 0,
                    .size = source.size,
                    .position = 0},
                   header);
  return WriteAll(descriptor, header, sizeof header);
}

bool WriteBlankBlock(int descriptor) noexcept {
  char block[kRingFirstEntry - kRingHeaderBytes];
  std::memset(block, ' ', sizeof block);
  block[sizeof block - 1] = '\n';
  return WriteAll(descriptor, block, sizeof block);
}

// Fills the file with blocks of an entry header, "_" and a line feed. It writes big pieces, because a ring of 1 GiB has
// a million blocks.
bool WriteBlocks(int descriptor, std::uint32_t size, std::string_view entry_header) noexcept {
  if (!ReserveBlocks(descriptor, size)) return false;
  char blocks[16 * kRingBlockBytes];
  std::memset(blocks, '_', sizeof blocks);
  for (std::size_t at = 0; at < sizeof blocks; at += kRingBlockBytes) {
    entry_header.copy(blocks + at, kRingBlockBytes - 1);
    blocks[at + kRingBlockBytes - 1] = '\n';
  }
  for (std::size_t left = size - kRingFirstEntry; left > 0;) {
    const std::size_t piece = std::min(left, sizeof blocks);
    if (!WriteAll(descriptor, blocks, piece)) return false;
    left -= piece;
  }
  return true;
}

bool IsPrintable(std::string_view text) noexcept {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

// Whether `line` begins like an entry: "2026-01-31 10:20:30.123 [".
bool BeginsEntry(std::string_view line) noexcept {
  constexpr std::string_view kShape = "9999-99-99 99:99:99.999 [";
  return line.size() >= kShape.size() && std::equal(kShape.begin(), kShape.end(), line.begin(), [](char shape, char c) {
           return shape == '9' ? c >= '0' && c <= '9' : c == shape;
         });
}

// The length of the entry at the beginning of `text`, if the terminator follows it before any other entry; otherwise 0.
std::size_t LengthOfLastEntry(std::string_view text) noexcept {
  if (!BeginsEntry(text)) return 0;
  for (std::size_t at = text.find('\n') + 1; at != 0; at = text.find('\n', at) + 1) {
    if (text.substr(at, kRingTerminator.size()) == kRingTerminator) return at;
    if (BeginsEntry(text.substr(at))) return 0;
  }
  return 0;
}

}  // namespace

RingBufferSink::OpenResult RingBufferSink::Open(const Source& source) noexcept {
  Close();
  if (source.size < kRingBytesMin) return {Failure::kOpen, EINVAL};
  descriptor_ = OpenOrCreate(source.path, source.size, is_new_).Release();
  const int error = errno;
  if (descriptor_ < 0) return {Failure::kOpen, error};
  size_ = source.size;

  OpenResult result = is_new_ ? Create(source) : OpenResult{};
  if (!is_new_) {
    const bool has_blocks = ReserveBlocks(descriptor_, size_);
    const int block_error = errno;
    if (!has_blocks) result = {Failure::kWriteBlocks, block_error};
  }
  if (result.failure == Failure::kNone) result = Map(source);
  if (result.failure != Failure::kNone) Close();
  return result;
}

// Writes a new file. If it cannot be written whole, it is removed, so that the disk does not stay full.
RingBufferSink::OpenResult RingBufferSink::Create(const Source& source) noexcept {
  const Failure failure = WriteWhole(source);
  if (failure == Failure::kNone) return {};
  const int error = errno;
  (void)file::Remove(source.path);
  return {failure, error};
}

// Writes the whole new file. Returns the step that failed, with its error number in errno.
RingBufferSink::Failure RingBufferSink::WriteWhole(const Source& source) const noexcept {
  if (!IsWithinFileLimit(size_)) {
    errno = EFBIG;
    return Failure::kWriteBlocks;
  }
  if (!WriteHeader(descriptor_, source)) return Failure::kWriteHeader;
  if (!WriteBlankBlock(descriptor_)) return Failure::kWriteBlankBlock;
  return WriteBlocks(descriptor_, size_, source.entry_header) ? Failure::kNone : Failure::kWriteBlocks;
}

RingBufferSink::OpenResult RingBufferSink::Map(const Source& source) noexcept {
  void* const map = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0);
  const int error = errno;
  if (map == MAP_FAILED) return {Failure::kMap, error};
  map_.store(static_cast<char*>(map), std::memory_order_relaxed);
  opens_ = 1;
  position_ = kRingFirstEntry;
  if (!is_new_) TakeOver(source);
  return {};
}

// Continues an existing file. All header lines are written again, in case another program has changed them.
void RingBufferSink::TakeOver(const Source& source) noexcept {
  const auto number_at = [&](std::size_t offset) { return ReadRingNumber(Bytes(offset, kRingNumberDigits)); };
  opens_ = number_at(kRingOpensOffset).value_or(0) + 1;
  wraps_ = number_at(kRingWrapsOffset).value_or(0);
  position_ = StoredPosition();

  char first_open[kRingValueChars];
  std::memcpy(first_open, At(kRingFirstOpenOffset), sizeof first_open);
  const std::string_view kept(first_open, sizeof first_open);
  char header[kRingHeaderBytes];
  FormatRingHeader({.path = source.path,
                    .first_open = IsPrintable(kept) ? kept : source.start_time,
                    .last_open = source.start_time,
                    .opens = opens_,
                    .wraps = wraps_,
                    .size = size_,
                    .position = static_cast<std::uint32_t>(position_)},
                   header);
  std::memcpy(At(0), header, sizeof header);
}

// The position at which the previous run ended; if the header does not have it, the end of the file, so that the next
// entry wraps. If the last writer was killed after it stored an entry and before it stored the position, this entry is
// after the stored position, and is counted here.
std::size_t RingBufferSink::StoredPosition() const noexcept {
  const std::size_t stored = ReadRingNumber(Bytes(kRingPositionOffset, kRingNumberDigits)).value_or(0);
  if (stored < kRingFirstEntry || stored > size_) return size_;
  return stored + LengthOfLastEntry(Bytes(stored, size_ - stored));
}

void RingBufferSink::Close() noexcept {
  if (char* map = map_.exchange(nullptr, std::memory_order_relaxed)) ::munmap(map, size_);
  if (size_ != 0) const file::Descriptor closed(descriptor_);
  descriptor_ = -1;
  size_ = wraps_ = opens_ = 0;
  position_ = wrap_start_ = stale_terminator_ = 0;
  is_new_ = is_wrapping_ = has_wrapped_ = false;
}

void RingBufferSink::Write(std::string_view entry) noexcept {
  assert(entry.size() > kAtomicBytes && Fits(entry.size()));
  char* const to = At(position_);
  position_ += entry.size();
  char digits[kRingNumberDigits];
  FormatRingNumber(static_cast<std::uint32_t>(position_), digits);

  std::memcpy(to + entry.size(), kRingTerminator.data(), kRingTerminator.size());
  std::memcpy(to + kAtomicBytes, entry.data() + kAtomicBytes, entry.size() - kAtomicBytes);
  KeepStoreOrder();
  StoreAtOnce(to, entry.data());
  KeepStoreOrder();
  StoreAtOnce(At(kRingPositionOffset), digits);
  if (stale_terminator_ != 0) EraseStaleTerminator();
}

void RingBufferSink::StoreNumber(std::size_t offset, std::uint32_t number) noexcept {
  char digits[kRingNumberDigits];
  FormatRingNumber(number, digits);
  StoreAtOnce(At(offset), digits);
}

// The terminator of the ended cycle stays until the first entry of the new cycle has a terminator after it. The number
// of wraps is increased before the position goes back: otherwise a reader would treat the text of the old cycle as
// bytes that were never written.
bool RingBufferSink::BeginWrap() noexcept {
  struct stat status {};
  if (file::StatusOf(descriptor_, status) != 0 || static_cast<std::uint64_t>(status.st_size) < size_) return false;
  const std::size_t dots = std::min<std::size_t>(position_ + kRingTerminator.size(), size_);
  std::memset(At(dots), '.', size_ - dots);
  KeepStoreOrder();
  StoreNumber(kRingWrapsOffset, ++wraps_);
  KeepStoreOrder();
  stale_terminator_ = position_;
  position_ = kRingFirstEntry;
  is_wrapping_ = has_wrapped_ = true;
  return true;
}

void RingBufferSink::EraseStaleTerminator() noexcept {
  KeepStoreOrder();
  const std::size_t size = std::min<std::size_t>(kRingTerminator.size(), size_ - stale_terminator_);
  std::memset(At(stale_terminator_), '.', size);
  stale_terminator_ = 0;
}

void RingBufferSink::EndWrap(std::size_t entry_size) noexcept {
  is_wrapping_ = false;
  LeaveGap();
  if (wrap_start_ != 0) position_ = wrap_start_;
  if (!Fits(entry_size)) position_ = kRingFirstEntry;
}

void RingBufferSink::LeaveGap() noexcept {
  const std::size_t after_gap = (position_ + kGapBytes) / kRingBlockBytes * kRingBlockBytes;
  position_ = std::min<std::size_t>(after_gap, size_);
}

bool RingBufferSink::CanKeepInit() const noexcept { return !has_wrapped_ && size_ - position_ > kSpaceToKeepInit; }

}  // namespace qx::debug
