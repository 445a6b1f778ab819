// Reads any bytes as a log or a ring file. The read must end, return only bytes of the file, and return no byte twice.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "debug/tools/TraceUnroll.h"
#include "fuzz/support/Require.h"

namespace {

using qx::debug::TraceEntry;
using qx::fuzz::Require;

// Requires that the lines of an entry fit into the bytes from the entry's begin to its end.
void CheckEntry(std::string_view bytes, const TraceEntry& entry) {
  Require(entry.begin <= entry.end && entry.end <= bytes.size());
  if (entry.kind == TraceEntry::Kind::kGap) return;
  Require(!entry.lines.empty());
  std::size_t length = entry.header_length + entry.lines.size();
  for (const std::string& line : entry.lines) length += line.size();
  if (length <= entry.end - entry.begin) return;
  Require(length == entry.end - entry.begin + 1);  // the last line has no line feed
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const qx::debug::TraceMemory source(bytes);
  qx::debug::TraceUnroller unroller(source);
  std::size_t shown = 0;
  for (TraceEntry entry; unroller.Next(entry);) {
    CheckEntry(bytes, entry);
    shown += entry.end - entry.begin;
  }
  Require(shown <= size);
  Require(!unroller.HasChanged());
  (void)unroller.Findings();
  return 0;
}
