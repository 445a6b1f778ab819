#include "reportfile/tools/StoreVerify.h"

#include <ctime>

#include <cerrno>
#include <optional>
#include <utility>

#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/StoreExaminer.h"

namespace qx::report {

namespace {

constexpr int kScansMax = 5;
constexpr int kHeaderScansMax = 2;
constexpr long kPauseNanoseconds = 20'000'000;

void Pause() {
  const timespec pause = {.tv_sec = 0, .tv_nsec = kPauseNanoseconds};
  (void)nanosleep(&pause, nullptr);  // a shorter pause does no harm
}

// An open file of the store, or the error of its open.
struct Opened {
  explicit Opened(const std::string& name) : path(name), bytes(OpenStoreFile(name, OpenMode::kRead)), error(errno) {
    if (bytes.IsOpen()) error = 0;
  }
  int Error() const { return error != 0 ? error : bytes.Error(); }

  std::string path;
  FileBytes bytes;
  int error;
};

Finding MissingFile(StoreFile file) {
  return {"file.missing", file, 0, 0, "the next writer that opens this report starts it over"};
}

// The verdict if the files cannot be checked; unset if both can be read.
std::optional<StoreVerdict> VerdictOnOpening(const Opened& index, const Opened& data) {
  const bool is_index_missing = index.error == ENOENT;
  const bool is_data_missing = data.error == ENOENT;
  StoreVerdict verdict;
  if (is_index_missing && is_data_missing) {
    verdict.state = StoreState::kNotFound;
    return verdict;
  }
  for (const Opened* const file : {&index, &data}) {
    if (file->Error() == 0 || file->error == ENOENT) continue;
    verdict.state = StoreState::kUnreadable;
    verdict.error = file->Error();
    verdict.file = file->path;
    return verdict;
  }
  if (!is_index_missing && !is_data_missing) return std::nullopt;
  verdict.state = StoreState::kDamaged;
  verdict.scan.findings.push_back(MissingFile(is_index_missing ? StoreFile::kIndex : StoreFile::kData));
  return verdict;
}

bool IsSameMoment(const StoreScan& scan, const StoreScan& before) {
  return scan.header == before.header && scan.index_bytes == before.index_bytes && scan.data_bytes == before.data_bytes;
}

// Scans with `scan_store` until the verdict is certain, at most `scans_max` times.
template <typename ScanFunction>
StoreVerdict Verify(const std::string& base_path, int scans_max, ScanFunction scan_store) {
  StoreVerdict verdict;
  std::optional<StoreScan> before;
  for (int scans = 0; scans < scans_max; ++scans) {
    Opened index(IndexFileName(base_path));
    Opened data(DataFileName(base_path));
    if (auto failed = VerdictOnOpening(index, data)) return *std::move(failed);
    verdict.scan = scan_store(index.bytes, data.bytes);
    if (auto failed = VerdictOnOpening(index, data)) return *std::move(failed);  // a read may have failed since
    if (verdict.scan.findings.empty()) return verdict;
    if (before.has_value() && IsSameMoment(verdict.scan, *before) && verdict.scan.findings == before->findings) {
      verdict.state = StoreState::kDamaged;
      return verdict;
    }
    before = verdict.scan;
    Pause();
  }
  verdict.state = StoreState::kChanged;
  return verdict;
}

}  // namespace

StoreVerdict VerifyStore(const std::string& base_path) { return Verify(base_path, kScansMax, ScanStore); }

StoreVerdict VerifyHeader(const std::string& base_path) { return Verify(base_path, kHeaderScansMax, ScanHeader); }

}  // namespace qx::report
