// A report's two files in a private directory, for tests that make, read and damage them.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/support/Support.h"

namespace qx::test {

class StoreFiles {
 public:
  const std::string& Base() const { return base_; }
  const char* Path() const { return base_.c_str(); }
  std::string IndexPath() const { return base_ + ".ind"; }
  std::string DataPath() const { return base_ + ".dat"; }
  std::string IndexBytes() const { return ReadFile(IndexPath()); }
  std::string DataBytes() const { return ReadFile(DataPath()); }

  // Writes both files from their parts, which may be damaged.
  void Make(const report::IndexHeader& header, const std::vector<std::uint32_t>& slots, std::string_view data) const {
    std::string index(reinterpret_cast<const char*>(&header), sizeof header);
    for (const std::uint32_t slot : slots) index.append(reinterpret_cast<const char*>(&slot), sizeof slot);
    WriteFile(IndexPath(), index);
    WriteFile(DataPath(), data);
  }

  // Writes in place, as a writer does, so that readers that have the files open see it. The file grows if necessary.
  void WriteSlot(std::uint32_t slot, std::uint32_t offset) const {
    WriteAt(IndexPath(), report::SlotOffset(slot), {reinterpret_cast<const char*>(&offset), sizeof offset});
  }
  void WriteHeader(const report::IndexHeader& header) const {
    WriteAt(IndexPath(), 0, {reinterpret_cast<const char*>(&header), sizeof header});
  }
  void WriteData(std::int64_t offset, std::string_view bytes) const { WriteAt(DataPath(), offset, bytes); }

  // A header with `slots` slots, all in use, the oldest first.
  static report::IndexHeader FullRing(std::uint32_t slots) {
    return {.writePosition = 0,
            .fileEnd = 0,
            .elementCount = slots,
            .maxRecord = slots,
            .highestIndex = slots,
            .oldestIndex = 0};
  }

  report::IndexHeader Header() const {
    const std::string bytes = IndexBytes();
    report::IndexHeader header;
    if (bytes.size() >= sizeof header) bytes.copy(reinterpret_cast<char*>(&header), sizeof header);
    return header;
  }

  std::vector<std::uint32_t> Slots() const {
    const std::string bytes = IndexBytes();
    std::vector<std::uint32_t> slots;
    for (std::size_t at = sizeof(report::IndexHeader); at + 4 <= bytes.size(); at += 4) {
      bytes.copy(reinterpret_cast<char*>(&slots.emplace_back()), 4, at);
    }
    return slots;
  }

 private:
  static void WriteAt(const std::string& path, std::int64_t offset, std::string_view bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    if (!file.seekp(offset).write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
      throw std::runtime_error("cannot write " + path);
    }
  }

  TempDir dir_;
  std::string base_ = dir_.File("r1");
};

// Makes a file of 8 MiB with data at its beginning and in its middle, and a hole at its end.
inline void MakeSparseFile(const std::string& path) {
  constexpr std::int64_t kMiB = std::int64_t{1} << 20;
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  const bool is_made = pwrite(file, "begin", 5, 0) == 5 && pwrite(file, "middle", 6, 5 * kMiB + 7) == 6 &&
                       ftruncate(file, 8 * kMiB) == 0;
  close(file);
  if (!is_made) throw std::runtime_error("no " + path);
}

// The allocated blocks, of 512 bytes each.
inline std::int64_t BlocksOf(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw std::runtime_error("no " + path);
  return status.st_blocks;
}

// The records of an open store, oldest first; a slot that cannot be read ends the list.
inline std::vector<std::string> ReadAll(CReportFileBase& store) {
  std::vector<std::string> records;
  for (std::uint32_t i = 0; i < store.header().highestIndex; ++i) {
    std::string text;
    if (!store.readLine(text, report::SlotOfLogical(store.header(), i))) break;
    records.push_back(text);
  }
  return records;
}

// The records that a new reader of the files finds.
inline std::vector<std::string> ReadAll(const StoreFiles& files) {
  CReportFileBase reader;
  if (!reader.OpenRead(files.Path())) return {"cannot be opened"};
  return ReadAll(reader);
}

}  // namespace qx::test
