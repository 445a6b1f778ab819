#include "tests/debug/TraceReading.h"

#include <algorithm>
#include <stdexcept>

namespace qx::test {

using debug::TraceEntry;
using debug::TraceFinding;
using debug::TracePart;

ReadBack Unroll(const std::string& bytes) {
  const debug::TraceMemory source(bytes);
  debug::TraceUnroller unroller(source);
  ReadBack read;
  for (TraceEntry entry; unroller.Next(entry);) read.entries.push_back(entry);
  read.findings = unroller.Findings();
  return read;
}

std::string TextOf(const TraceEntry& entry) {
  std::string text;
  for (const std::string& line : entry.lines) text += line + "\n";
  return text;
}

std::string Shown(const ReadBack& read) {
  std::string shown;
  for (const TraceEntry& entry : read.entries) {
    std::string lines = TextOf(entry);
    std::replace(lines.begin(), lines.end() - (lines.empty() ? 0 : 1), '\n', '|');
    const char* const part = entry.part == TracePart::kHead    ? "head: "
                             : entry.part == TracePart::kOlder ? "older: "
                                                               : "newest: ";
    if (entry.kind == TraceEntry::Kind::kGap) shown += "gap\n";
    if (entry.kind == TraceEntry::Kind::kWrap) shown += "wrap\n";
    if (entry.kind == TraceEntry::Kind::kPiece) shown += "piece: " + lines;
    if (entry.kind == TraceEntry::Kind::kEntry) shown += part + lines;
  }
  return shown;
}

std::vector<TraceFinding::Kind> Kinds(const ReadBack& read) {
  std::vector<TraceFinding::Kind> kinds;
  for (const TraceFinding& finding : read.findings) kinds.push_back(finding.kind);
  return kinds;
}

bool Has(const ReadBack& read, TraceFinding::Kind kind) {
  const auto kinds = Kinds(read);
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

WriteThenRead::WriteThenRead(const std::string& bytes) {
  Replace(bytes);
  if (file_.Open(dir_.File("log")) != 0) throw std::runtime_error("cannot open the file");
  unroller_ = std::make_unique<debug::TraceUnroller>(file_);
  for (TraceEntry entry; unroller_->Next(entry);) {
  }
}

}  // namespace qx::test
