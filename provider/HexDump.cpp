#include "provider/HexDump.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "provider/QXString.h"

namespace qx::provider {

namespace {

constexpr std::size_t kRowBytes = 16;

char Shown(char byte) { return byte >= 32 && byte <= 126 ? byte : '.'; }

// Appends one row: numbers, then characters. Both columns are as wide as for `cells` bytes.
void AppendRow(CQXString<>& dump, std::string_view row, std::size_t cells) {
  std::string characters(cells, ' ');
  std::transform(row.begin(), row.end(), characters.begin(), Shown);
  for (const char byte : row) dump.AppendFormat("%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
  dump.append(3 * (cells - row.size()), ' ');
  dump.AppendFormat("  %s", characters.c_str());
}

}  // namespace

std::string NameHexDump(const char* text) {
  if (text == nullptr) return "(null)";
  const std::string_view bytes(text);
  const bool one_row = bytes.size() <= kRowBytes;

  CQXString<> dump;
  for (std::size_t offset = 0; offset < bytes.size(); offset += kRowBytes) {
    if (offset != 0) dump += '\n';
    if (!one_row) dump.AppendFormat("%04X: ", static_cast<unsigned>(offset));
    AppendRow(dump, bytes.substr(offset, kRowBytes), one_row ? bytes.size() : kRowBytes);
  }
  return dump;
}

}  // namespace qx::provider
