// The store in its plainest form: buffered streams, one seek and one byte at a time. Slow and obvious: the oracle for
// the store's bytes and for the records of every reader.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "reportfile/StoreFormat.h"

namespace qx::test {

class PlainStore {
 public:
  PlainStore() = default;
  ~PlainStore() { Close(); }
  PlainStore(const PlainStore&) = delete;
  PlainStore& operator=(const PlainStore&) = delete;

  bool Open(const std::string& path, std::uint32_t max_records);
  bool OpenRead(const std::string& path);
  void Close();
  bool WriteLine(const char* text);
  bool ReadLine(std::string& out, std::uint32_t slot);

  report::IndexHeader header;

 private:
  bool OpenBoth(const std::string& path, const char* mode);
  void ReadHeader();
  std::uint32_t OffsetInSlot(std::uint32_t slot);

  std::FILE* data_ = nullptr;
  std::FILE* index_ = nullptr;
};

}  // namespace qx::test
