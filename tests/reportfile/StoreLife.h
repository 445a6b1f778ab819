// Makes stores with the real writer, and holds them as bytes in memory: the input for the tests of the store tools.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/StoreVerify.h"
#include "tests/reportfile/StoreFiles.h"

namespace qx::test {

// The bytes of both files of a store.
struct StoreBytes {
  std::string index;
  std::string data;

  report::StoreScan Scan() const {
    report::MemoryBytes index_bytes(index);
    report::MemoryBytes data_bytes(data);
    return report::ScanStore(index_bytes, data_bytes);
  }
  report::IndexHeader Header() const {
    report::IndexHeader header;
    if (index.size() >= sizeof header) index.copy(reinterpret_cast<char*>(&header), sizeof header);
    return header;
  }
};

// A store that grows by real appends; Bytes() has the content of its files.
class StoreLife {
 public:
  explicit StoreLife(std::uint32_t slots) { Require(store_.Open(files_.Path(), slots)); }

  void Append(const std::string& text) { Require(store_.writeLine(text.c_str())); }
  void Reopen() { Require(store_.Open(files_.Path(), 1)); }
  StoreBytes Bytes() const { return {files_.IndexBytes(), files_.DataBytes()}; }
  const StoreFiles& Files() const { return files_; }

 private:
  static void Require(bool holds) {
    if (!holds) throw std::runtime_error("the store could not be written");
  }

  StoreFiles files_;
  CReportFileBase store_;
};

inline StoreBytes StoreOf(std::uint32_t slots, const std::vector<std::string>& texts) {
  StoreLife life(slots);
  for (const std::string& text : texts) life.Append(text);
  return life.Bytes();
}

// "rec1", "rec2", ...: records of one length up to the ninth.
inline std::vector<std::string> Numbered(int count) {
  std::vector<std::string> texts;
  for (int i = 1; i <= count; ++i) texts.push_back("rec" + std::to_string(i));
  return texts;
}

inline std::string Rules(const report::StoreScan& scan) {
  std::string rules;
  for (const report::Finding& finding : scan.findings) {
    rules += std::string(finding.rule) + "@" + std::to_string(finding.offset) + "=" + std::to_string(finding.value) +
             (finding.file == report::StoreFile::kIndex ? " index; " : " data; ");
  }
  return rules;
}

}  // namespace qx::test
