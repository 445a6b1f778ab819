// The oracle for writers and readers of a report: a store as plain values. It has the bytes of the two files, the
// header that the writer holds in memory, and the records that the ring must have. It does with strings what the store
// does with files, and shares only the layout of the header with the store's code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "reportfile/StoreFormat.h"

namespace qx::test {

struct ReportRing {
  struct Kept {  // a record of the ring
    std::string line;
    std::uint32_t at = 0;
    bool intact = true;  // nothing was written over it
  };

  std::string index, data;     // the files
  report::IndexHeader writer;  // what the writer holds in memory
  std::vector<Kept> ring;      // by slot

  static std::string_view Bytes(const void* from, std::size_t size) { return {static_cast<const char*>(from), size}; }

  // The header in the index file, or `header` if the file has no whole one.
  report::IndexHeader ReadHeader(report::IndexHeader header = {}) const {
    if (index.size() >= sizeof header) std::memcpy(&header, index.data(), sizeof header);
    return header;
  }

  void Append(std::string_view text) {
    const std::uint32_t at = writer.writePosition;
    std::string line = std::string(text) + "\r\n";
    const auto end = static_cast<std::uint32_t>(at + line.size());
    Put(data, at, line);
    Put(data, end, "===>\r\n");
    NoteOverwritten(at, end + 6);

    const std::uint32_t slot = writer.highestIndex < writer.maxRecord ? writer.highestIndex : writer.oldestIndex;
    Put(index, 24 + 4 * std::size_t{slot}, Bytes(&at, 4));
    if (writer.highestIndex < writer.maxRecord) {
      ++writer.highestIndex;
      ring.push_back({std::move(line), at});
    } else {
      writer.oldestIndex = writer.oldestIndex + 1 < writer.maxRecord ? writer.oldestIndex + 1 : 0;
      ring[slot] = {std::move(line), at};
    }
    writer.writePosition = end;
    if (writer.fileEnd < end) writer.fileEnd = end;
    ++writer.elementCount;
    if (2 * writer.maxRecord != 0 && writer.elementCount % (2 * writer.maxRecord) == 0) {
      writer.fileEnd = end;
      writer.writePosition = 0;
    }
    Put(index, 0, Bytes(&writer, sizeof writer));
  }

  // The record in a slot: up to its line feed or a byte 0xFF, and cut at its first NUL. The end of the file counts as a
  // byte 0xFF.
  std::string Read(std::uint32_t slot) const {
    std::uint32_t at = 0;
    if (index.size() >= 28 + 4 * std::size_t{slot}) std::memcpy(&at, &index[24 + 4 * std::size_t{slot}], 4);
    std::string line;
    while (!line.ends_with('\n') && !line.ends_with('\xFF')) line += at < data.size() ? data[at++] : '\xFF';
    return line.c_str();
  }

  // The record of this age; age 0 is the oldest.
  const Kept& OfAge(std::size_t age) const { return ring[(age + writer.oldestIndex) % ring.size()]; }

 private:
  static void Put(std::string& file, std::size_t at, std::string_view bytes) {
    if (file.size() < at + bytes.size()) file.resize(at + bytes.size());
    file.replace(at, bytes.size(), bytes);
  }

  void NoteOverwritten(std::uint32_t begin, std::uint32_t end) {
    if (begin >= writer.fileEnd) return;  // all lines are before it
    for (Kept* kept = ring.data(); kept != ring.data() + ring.size(); ++kept) {
      if (kept->at < end && kept->at + kept->line.size() > begin) kept->intact = false;
    }
  }
};

}  // namespace qx::test
