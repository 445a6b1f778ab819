#include "reportfile/tools/backup/CompressedFile.h"

#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/File.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"

namespace qx::report {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{128} << 10;
constexpr std::size_t kFrameHeaderBytesMax = 18;

struct FreeContext {
  void operator()(ZSTD_CCtx* context) const { (void)ZSTD_freeCCtx(context); }
  void operator()(ZSTD_DCtx* context) const { (void)ZSTD_freeDCtx(context); }
};

bool SetUp(ZSTD_CCtx* context, std::int64_t size) {
  return ZSTD_isError(ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1)) == 0 &&
         ZSTD_isError(ZSTD_CCtx_setPledgedSrcSize(context, static_cast<unsigned long long>(size))) == 0;
}

// Compresses `bytes`, and writes what the library returns so far; for the last input, everything up to the end of the
// frame. Returns 0 or the error number.
int WriteFrame(ZSTD_CCtx* context, std::string_view bytes, bool is_last, char* block, NewFile& to, std::int64_t* at) {
  ZSTD_inBuffer in = {bytes.data(), bytes.size(), 0};
  for (;;) {
    ZSTD_outBuffer out = {block, kBlockBytes, 0};
    const std::size_t left = ZSTD_compressStream2(context, &out, &in, is_last ? ZSTD_e_end : ZSTD_e_continue);
    if (ZSTD_isError(left) != 0) return EIO;  // such as more or fewer bytes than the pledged size
    to.WriteAt(*at, {block, out.pos});
    *at += static_cast<std::int64_t>(out.pos);
    const bool is_done = is_last ? left == 0 : in.pos == in.size;
    if (is_done || to.Error() != 0) return to.Error();
  }
}

int Compress(FileBytes& source, std::int64_t size, NewFile& to) {
  const std::unique_ptr<ZSTD_CCtx, FreeContext> context(ZSTD_createCCtx());
  if (context == nullptr || !SetUp(context.get(), size)) return ENOMEM;
  const auto block = std::make_unique_for_overwrite<char[]>(kBlockBytes);
  WindowedBytes window(source);
  std::int64_t written = 0;
  for (std::int64_t at = 0;;) {
    const std::string_view bytes = window.At(at);
    if (source.Error() != 0) return source.Error();
    const int error = WriteFrame(context.get(), bytes, bytes.empty(), block.get(), to, &written);
    if (error != 0 || bytes.empty()) return error;
    at += std::ssize(bytes);
  }
}

// True if the first byte is 0 and each byte equals the one before it.
bool IsAllZeros(std::string_view bytes) {
  return bytes.empty() || (bytes[0] == '\0' && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

// Expands one frame into a file.
class Expander {
 public:
  Expander(FileBytes& source, NewFile& to) : source_(source), window_(source), to_(to) {}

  int Run() {
    if (const int error = ReadSize(); error != 0) return error;
    const std::unique_ptr<ZSTD_DCtx, FreeContext> context(ZSTD_createDCtx());
    if (context == nullptr) return ENOMEM;
    for (std::size_t expected = 1; expected != 0;) {
      const std::string_view bytes = window_.At(read_);
      if (bytes.empty()) return source_.Error() != 0 ? source_.Error() : EBADMSG;
      if (const int error = ExpandBlocks(context.get(), bytes, &expected); error != 0) return error;
    }
    const bool is_exact = read_ == source_.Size() && written_ == size_;
    return is_exact ? MakeFullSize() : EBADMSG;
  }

 private:
  int ReadSize() {
    const std::string_view head = window_.At(0, kFrameHeaderBytesMax);
    const unsigned long long size = ZSTD_getFrameContentSize(head.data(), head.size());
    if (size == ZSTD_CONTENTSIZE_UNKNOWN || size == ZSTD_CONTENTSIZE_ERROR) return EBADMSG;
    if (size > static_cast<unsigned long long>(kExpandedBytesMax)) return EFBIG;
    size_ = static_cast<std::int64_t>(size);
    return 0;
  }

  // Sets how many bytes the library expects next; 0 at the end of the frame.
  int ExpandBlocks(ZSTD_DCtx* context, std::string_view bytes, std::size_t* expected) {
    ZSTD_inBuffer in = {bytes.data(), bytes.size(), 0};
    bool is_block_full = true;  // if it is full, the library may have more
    while (*expected != 0 && (in.pos < in.size || is_block_full)) {
      ZSTD_outBuffer out = {block_.get(), kBlockBytes, 0};
      *expected = ZSTD_decompressStream(context, &out, &in);
      if (ZSTD_isError(*expected) != 0) return EBADMSG;
      is_block_full = out.pos == out.size;
      if (const int error = Write({block_.get(), out.pos}); error != 0) return error;
    }
    read_ += static_cast<std::int64_t>(in.pos);
    return 0;
  }

  int Write(std::string_view bytes) {
    if (std::ssize(bytes) > size_ - written_) return EBADMSG;
    const bool is_hole = IsAllZeros(bytes);
    if (!is_hole) to_.WriteAt(written_, bytes);
    if (!bytes.empty()) is_hole_last_ = is_hole;
    written_ += std::ssize(bytes);
    return to_.Error();
  }

  int MakeFullSize() {
    if (is_hole_last_) to_.WriteAt(size_ - 1, {"\0", 1});
    return to_.Error();
  }

  FileBytes& source_;
  WindowedBytes window_;
  NewFile& to_;
  std::unique_ptr<char[]> block_ = std::make_unique_for_overwrite<char[]>(kBlockBytes);
  std::int64_t size_ = 0;
  std::int64_t read_ = 0;
  std::int64_t written_ = 0;
  bool is_hole_last_ = false;
};

}  // namespace

int CompressFile(const std::string& name, int directory) {
  FileBytes source(OpenForReading(name, directory));
  if (!source.IsOpen()) return errno;
  struct stat status = {};
  int error = file::StatusOf(source.Number(), status);
  if (error == 0 && status.st_size > kExpandedBytesMax) error = EFBIG;
  if (error != 0) return error;
  NewFile target(name + kCompressedEnding, directory);
  if (target.Error() == 0) error = Compress(source, status.st_size, target);
  if (error == 0) error = target.Finish(status);
  return error != 0 ? error : file::Remove(name.c_str(), 0, directory);
}

int ExpandFile(const std::string& name, int from_directory, int to_directory) {
  FileBytes source(OpenForReading(name + kCompressedEnding, from_directory));
  if (!source.IsOpen()) return errno;
  struct stat status = {};
  int error = file::StatusOf(source.Number(), status);
  if (error != 0) return error;
  NewFile target(name, to_directory);
  if (target.Error() == 0) error = Expander(source, target).Run();
  return error != 0 ? error : target.Finish(status);
}

}  // namespace qx::report
