// A report's store, its writer, a reader and a transfer as plain values: bytes, six numbers a header, and the records
// that the ring should hold. What the store does to files is done here to strings.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace qx::trust {

struct Head {
  std::uint32_t write = 0, end = 0, count = 0, slots = 10000, used = 0, oldest = 0;
};

struct Kept {  // a record of the ring
  std::string line;
  std::uint32_t at = 0;
  bool intact = true;  // nothing was written over it
};

struct RingModel {
  std::string index, data;  // the files
  std::vector<Kept> ring;   // oldest first
  Head writer, reader;      // what the open objects hold in memory
  bool called = false;      // of the transfer: whether its next call continues with an open report
  Head transfer;            // the report that it holds open
  std::int64_t oldest = -1, highest = -1;
  std::int32_t next = 0;  // where the client continues

  void Put(std::string& file, std::size_t at, const std::string& bytes) {
    if (file.size() < at + bytes.size()) file.resize(at + bytes.size());
    file.replace(at, bytes.size(), bytes);
  }

  static std::string Bytes(const void* from, std::size_t size) { return {static_cast<const char*>(from), size}; }

  Head ReadHead(Head head) const {
    if (index.size() >= sizeof head) std::memcpy(&head, index.data(), sizeof head);
    return head;
  }

  void Append(const std::string& text) {
    const std::string line = text + "\r\n";
    const std::uint32_t at = writer.write;
    Put(data, at, line + "===>\r\n");
    const std::uint32_t slot = writer.used < writer.slots ? writer.used : writer.oldest;
    Put(index, 24 + 4 * std::size_t{slot}, Bytes(&at, 4));
    if (writer.used < writer.slots) {
      ++writer.used;
    } else {
      writer.oldest = (writer.oldest + 1) % writer.slots;
      ring.erase(ring.begin());
    }
    const auto behind = static_cast<std::uint32_t>(at + line.size());
    for (Kept& kept : ring) kept.intact &= kept.at >= behind + 6 || kept.at + kept.line.size() <= at;
    ring.push_back({line, at});
    writer.write = behind;
    if (writer.end < behind) writer.end = behind;
    if (++writer.count % (2 * writer.slots) == 0) {
      writer.end = behind;
      writer.write = 0;
    }
    Put(index, 0, Bytes(&writer, sizeof writer));
  }

  // The record in a slot: up to its line feed; the end of the file ends it with a byte 0xFF.
  std::string Read(std::uint32_t slot) const {
    std::uint32_t at = 0;
    if (index.size() >= 28 + 4 * std::size_t{slot}) std::memcpy(&at, &index[24 + 4 * std::size_t{slot}], 4);
    const std::size_t end = data.find('\n', at);
    if (at >= data.size()) return "\xFF";
    return end == std::string::npos ? data.substr(at) + '\xFF' : data.substr(at, end + 1 - at);
  }

  // One call of a transfer, with an append between its first read and its check whether the ring has moved.
  std::string Call(std::int32_t start, std::int32_t limit, const std::function<void()>& between) {
    if (start == 0) called = false;
    if (!called) {
      transfer = ReadHead({});
      oldest = transfer.oldest;
      highest = transfer.used;
    }
    std::string text;
    std::int64_t i = start;
    for (bool check = !called; i < highest;) {
      auto slot = static_cast<std::uint32_t>(i + oldest);
      if (slot >= highest) slot -= static_cast<std::uint32_t>(highest);
      const bool readable = slot < transfer.used;
      const std::string line = Read(slot);
      if (check) {
        between();
        transfer = ReadHead({});
        check = false;
        const bool moved = transfer.oldest != oldest;
        oldest = transfer.oldest;
        if (moved && readable) continue;
      }
      if (!readable || i - start >= limit) break;
      text += line;
      ++i;
    }
    called = true;
    if (!text.empty()) next = static_cast<std::int32_t>(i);
    return text;
  }
};

}  // namespace qx::trust
