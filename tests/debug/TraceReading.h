// Reads a whole trace file in tests.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "debug/tools/TraceUnroll.h"
#include "tests/support/Support.h"

namespace qx::test {

struct ReadBack {
  std::vector<debug::TraceEntry> entries;
  std::vector<debug::TraceFinding> findings;
};

// Unrolls the bytes of a file.
ReadBack Unroll(const std::string& bytes);

// The lines of an entry, each with its line feed.
std::string TextOf(const debug::TraceEntry& entry);

// The entries as text: "older: first line|second line\n" for each entry; "gap", "wrap" and "piece: text" for other
// results.
std::string Shown(const ReadBack& read);

std::vector<debug::TraceFinding::Kind> Kinds(const ReadBack& read);
bool Has(const ReadBack& read, debug::TraceFinding::Kind kind);

// A file of the given bytes with an unroller over it.
class WriteThenRead {
 public:
  explicit WriteThenRead(const std::string& bytes);
  void Replace(const std::string& bytes) const { WriteFile(dir_.File("log"), bytes); }
  const debug::TraceUnroller& Unroller() const { return *unroller_; }

 private:
  TempDir dir_;
  debug::TraceFile file_;
  std::unique_ptr<debug::TraceUnroller> unroller_;
};

}  // namespace qx::test
