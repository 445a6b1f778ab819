// A report's two files in a private directory, as tests make, look at and damage them.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <climits>
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

  // Writes both files from their parts: damaged stores are made, not hoped for.
  void Make(const report::IndexHeader& header, const std::vector<std::uint32_t>& slots, std::string_view data) const {
    std::string index(reinterpret_cast<const char*>(&header), sizeof header);
    for (const std::uint32_t slot : slots) index.append(reinterpret_cast<const char*>(&slot), sizeof slot);
    WriteFile(IndexPath(), index);
    WriteFile(DataPath(), data);
  }

  // Writes in place, as a writer does: readers that have the files open see it. The file grows if it has to.
  void WriteSlot(std::uint32_t slot, std::uint32_t offset) const {
    WriteAt(IndexPath(), report::SlotOffset(slot), {reinterpret_cast<const char*>(&offset), sizeof offset});
  }
  void WriteData(std::int64_t offset, std::string_view bytes) const { WriteAt(DataPath(), offset, bytes); }

  // A header that says: `slots` slots, all in use, the oldest first.
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

// A file so deep below `directory` that its path is longer than any path may be: its directory can be listed, but
// nobody can say what it is.
inline void MakeFileOutOfReach(const std::string& directory) {
  const std::string name(NAME_MAX, 'd');
  std::string deep = directory;
  while (deep.size() + 1 + name.size() < PATH_MAX) deep.append("/").append(name);
  std::filesystem::create_directories(deep);
  const int at = open(deep.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int file = openat(at, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) throw std::runtime_error("no file in " + deep);
  close(file);
  close(at);
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

// The records that a reader finds who opens the files now.
inline std::vector<std::string> ReadAll(const StoreFiles& files) {
  CReportFileBase reader;
  if (!reader.OpenRead(files.Path())) return {"cannot be opened"};
  return ReadAll(reader);
}

}  // namespace qx::test
