// Opens and reads a report with arbitrary index and data bytes. Both must end, and runs taken through windows must be
// what readLine returns slot by slot.
//
// Input: one byte n and four bytes that steer Take, then n bytes of the index file (or all bytes that follow, if these
// are fewer), then the data file.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/support/Require.h"
#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/TakeOneByOne.h"

namespace {

using qx::fuzz::Require;
using qx::report::RecordReader;
using qx::report::TakenRecords;
using qx::test::TakeOneByOne;

constexpr std::size_t kSteeringBytes = 5;
constexpr std::uint32_t kSlotsMax = 40;  // more slots would not test anything else

// Creates the two files of a report in a private directory, which is in memory.
class ReportFiles {
 public:
  ReportFiles() {
    Require(mkdtemp(directory_) != nullptr, "no temporary directory");
    index_ = Create(".ind");
    data_ = Create(".dat");
    Require(index_ >= 0 && data_ >= 0, "no files");
  }
  ~ReportFiles() {
    (void)unlink((Base() + ".ind").c_str());
    (void)unlink((Base() + ".dat").c_str());
    (void)rmdir(directory_);
  }
  ReportFiles(const ReportFiles&) = delete;
  ReportFiles& operator=(const ReportFiles&) = delete;

  std::string Base() const { return std::string(directory_) + "/r"; }

  void Fill(std::string_view index, std::string_view data) const {
    FillOne(index_, index);
    FillOne(data_, data);
  }

 private:
  int Create(const char* extension) const {
    return open((Base() + extension).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  }

  static void FillOne(int fd, std::string_view bytes) {
    Require(ftruncate(fd, 0) == 0 && pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "the file could not be written");
  }

  char directory_[32] = "/dev/shm/qx-store-fuzz-XXXXXX";
  int index_ = -1;
  int data_ = -1;
};

void CompareTake(CReportFileBase& store, RecordReader& reader, std::uint32_t first, std::uint32_t count_max,
                 std::size_t gathered_max) {
  std::string expected = "held";
  std::string taken = "held";
  const TakenRecords plain = TakeOneByOne(store, first, count_max, gathered_max, &expected);
  const TakenRecords result = reader.Take(first, {count_max, gathered_max}, &taken);
  Require(result.count == plain.count && result.end == plain.end, "Take counts otherwise than readLine");
  Require(taken == expected, "Take reads otherwise than readLine");
}

void CompareRead(CReportFileBase& store, RecordReader& reader, std::uint32_t slot, std::size_t bytes_max) {
  std::string expected;
  std::string read = "held";
  bool too_long = false;
  const bool is_there = store.readLine(expected, slot);
  Require(reader.Read(slot, bytes_max, &read, &too_long) == is_there, "Read finds otherwise than readLine");
  Require(too_long == (is_there && expected.size() >= bytes_max), "Read judges the length wrongly");
  Require(read == (is_there && !too_long ? "held" + expected : "held"), "Read reads otherwise than readLine");
}

// Takes a run of all slots in use. The run must end soon, however many slots there are, because the chunk is bounded.
void TakeWhole(CReportFileBase& store, RecordReader& reader) {
  constexpr std::size_t kChunkBytes = 4096;
  std::string chunk;
  const TakenRecords taken = reader.Take(0, {store.header().highestIndex, kChunkBytes}, &chunk);
  Require(chunk.size() < kChunkBytes, "the chunk is over its limit");
  Require(taken.count <= store.header().highestIndex, "more records than slots in use");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ReportFiles files;
  if (size < kSteeringBytes) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + kSteeringBytes, size - kSteeringBytes);
  const std::size_t index_bytes = std::min<std::size_t>(data[0], rest.size());
  files.Fill(rest.substr(0, index_bytes), rest.substr(index_bytes));

  CReportFileBase store;
  Require(store.OpenRead(files.Base().c_str()), "the store does not open");
  RecordReader reader(store);
  const std::uint32_t first = data[1] % kSlotsMax;
  CompareTake(store, reader, first, data[2] % kSlotsMax, data[3] * std::size_t{4});
  CompareTake(store, reader, 0, kSlotsMax, 4 + data[4]);
  CompareRead(store, reader, first, data[4]);
  reader.Drop();
  CompareTake(store, reader, store.header().oldestIndex, kSlotsMax, std::size_t{1} << 20);
  TakeWhole(store, reader);
  return 0;
}
