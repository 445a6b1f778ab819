#include "reportfile/tools/StoreLines.h"

#include <algorithm>
#include <cstring>

#include "reportfile/StoreFormat.h"

namespace qx::report {

namespace {

constexpr std::int64_t kRecordBytesMin = kLineEnd.size();

}  // namespace

std::optional<std::uint32_t> StoreLines::SlotAt(std::uint32_t slot) {
  const std::string_view bytes = slots_.At(SlotOffset(slot), sizeof(std::uint32_t));
  std::uint32_t offset = 0;
  if (bytes.size() < sizeof offset) return std::nullopt;
  std::memcpy(&offset, bytes.data(), sizeof offset);
  return offset;
}

std::string_view StoreLines::TextAt(std::int64_t at, std::int64_t end) {
  const std::string_view bytes = texts_.At(at);
  return bytes.substr(0, static_cast<std::size_t>(std::min<std::int64_t>(end - at, std::ssize(bytes))));
}

std::int64_t StoreLines::FindNul(std::int64_t at, std::int64_t end) {
  while (at < end) {
    const std::string_view bytes = TextAt(at, end);
    if (bytes.empty()) return end;
    const std::size_t nul = bytes.find('\0');
    if (nul != std::string_view::npos) return at + static_cast<std::int64_t>(nul);
    at += static_cast<std::int64_t>(bytes.size());
  }
  return end;
}

std::int64_t StoreLines::FindLineFeed(std::int64_t at) {
  for (std::string_view bytes = texts_.At(at); !bytes.empty(); bytes = texts_.At(at)) {
    const std::size_t found = bytes.find_first_of(std::string_view("\n\0", 2));
    if (found != std::string_view::npos) return at + static_cast<std::int64_t>(found);
    at += static_cast<std::int64_t>(bytes.size());
  }
  return at;
}

std::optional<std::int64_t> StoreLines::EndOfLine(std::int64_t begin) {
  const std::int64_t end = FindLineFeed(begin) + 1;
  const std::int64_t line_end = end - kRecordBytesMin;
  if (line_end < begin || !texts_.At(line_end, kRecordBytesMin).starts_with(kLineEnd)) return std::nullopt;
  return end;
}

std::int64_t StoreLines::FindLineEndAndMarker(std::int64_t at) {
  constexpr std::size_t kPattern = kLineEndAndMarker.size();
  for (std::string_view bytes = texts_.At(at, kPattern); bytes.size() >= kPattern; bytes = texts_.At(at, kPattern)) {
    const std::size_t found = bytes.find(kLineEndAndMarker);
    if (bytes.substr(0, found).find('\0') != std::string_view::npos) return -1;
    if (found != std::string_view::npos) return at + static_cast<std::int64_t>(found);
    at += static_cast<std::int64_t>(bytes.size() - kPattern + 1);
  }
  return -1;
}

}  // namespace qx::report
