// Any bytes as a log or a ring file: a read ends, and returns only bytes of the file and no byte twice.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "debug/tools/TraceUnroll.h"
#include "fuzz/support/Require.h"

namespace {

using qx::debug::TraceEntry;
using qx::fuzz::Require;

// The lines of an entry are bytes of the file from its offset on, without the holes between them.
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
