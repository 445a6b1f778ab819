#include "tests/reportfile/PlainStore.h"

namespace qx::test {

bool PlainStore::OpenBoth(const std::string& path, const char* mode) {
  index_ = std::fopen((path + ".ind").c_str(), mode);
  data_ = std::fopen((path + ".dat").c_str(), mode);
  return index_ != nullptr && data_ != nullptr;
}

bool PlainStore::Open(const std::string& path, std::uint32_t max_records) {
  Close();
  if (OpenBoth(path, "r+b")) {
    ReadHeader();
    return true;
  }
  Close();
  header.maxRecord = max_records != 0 ? max_records : 1073741823;
  return OpenBoth(path, "w+b");
}

bool PlainStore::OpenRead(const std::string& path) {
  Close();
  if (!OpenBoth(path, "rb")) return false;
  header = report::IndexHeader();
  ReadHeader();
  return true;
}

void PlainStore::Close() {
  if (data_ != nullptr) (void)std::fclose(data_);
  if (index_ != nullptr) (void)std::fclose(index_);
  data_ = index_ = nullptr;
}

void PlainStore::ReadHeader() {
  report::IndexHeader read;
  if (std::fseek(index_, 0, SEEK_SET) == 0 && std::fread(&read, 1, sizeof read, index_) == sizeof read) header = read;
}

std::uint32_t PlainStore::OffsetInSlot(std::uint32_t slot) {
  std::uint32_t offset = 0;
  if (std::fseek(index_, 24 + 4 * static_cast<long>(slot), SEEK_SET) != 0) return 0;
  return std::fread(&offset, 1, sizeof offset, index_) == sizeof offset ? offset : 0;
}

bool PlainStore::WriteLine(const char* text) {
  const std::uint32_t begin = header.writePosition;
  if (std::fseek(data_, begin, SEEK_SET) != 0) return false;
  if (std::fputs(text, data_) < 0 || std::fputs("\r\n", data_) < 0 || std::fflush(data_) != 0) return false;

  const bool is_filling = header.highestIndex < header.maxRecord;
  const std::uint32_t slot = is_filling ? header.highestIndex : header.oldestIndex;
  if (std::fseek(index_, 24 + 4 * static_cast<long>(slot), SEEK_SET) != 0) return false;
  if (std::fwrite(&begin, 4, 1, index_) != 1) return false;

  if (is_filling) {
    header.highestIndex++;
  } else {
    header.oldestIndex = header.oldestIndex + 1 < header.maxRecord ? header.oldestIndex + 1 : 0;
  }
  header.writePosition = static_cast<std::uint32_t>(std::ftell(data_));
  (void)std::fputs("===>\r\n", data_);
  (void)std::fflush(data_);
  if (header.fileEnd < header.writePosition) header.fileEnd = header.writePosition;
  header.elementCount++;
  if (2 * header.maxRecord != 0 && header.elementCount % (2 * header.maxRecord) == 0) {
    header.fileEnd = header.writePosition;
    header.writePosition = 0;
  }
  (void)std::fseek(index_, 0, SEEK_SET);
  (void)std::fwrite(&header, sizeof header, 1, index_);
  (void)std::fflush(index_);
  return true;
}

bool PlainStore::ReadLine(std::string& out, std::uint32_t slot) {
  if (data_ == nullptr || index_ == nullptr || slot >= header.highestIndex) return false;
  if (std::fseek(data_, OffsetInSlot(slot), SEEK_SET) != 0) return false;
  std::string line;
  for (;;) {
    const char byte = static_cast<char>(std::getc(data_));  // the end of the file becomes the byte 0xFF
    line += byte;
    if (byte == '\n' || byte == '\xFF') break;
  }
  out = line.c_str();
  return true;
}

}  // namespace qx::test
