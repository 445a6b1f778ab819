// Records with their identity: number, length and checksum are in the text, so that a reader can tell a whole record
// from a mixture of two, and a transfer's order from its neighbours' numbers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qx::trust {

// Record `number`: 40 to 420 characters, no line end; some hold what ends a CDATA section.
std::string TortureRecord(std::uint32_t number);

// The number of a whole record, or -1 for anything else.
std::int64_t NumberOf(std::string_view text);

// Counts of the records that readers got. A record steps forward if its number is more than one above that of the
// record before it (the records between them were lost to this transfer), and back if it is not above it.
struct Tally {
  std::uint64_t transfers = 0;
  std::uint64_t records = 0;
  std::uint64_t mixed = 0;
  std::uint64_t forward = 0;
  std::uint64_t back = 0;
  std::uint64_t malformed = 0;  // replies, or reads that failed where one had to succeed

  void Add(const Tally& other);
};

// Judges the records of one transfer in the order in which they came.
class TransferJudge {
 public:
  explicit TransferJudge(Tally& tally) : tally_(tally) { ++tally_.transfers; }

  void Take(std::string_view text);
  // A text of many records, each with its line end.
  void TakeLines(std::string_view text);

 private:
  Tally& tally_;
  std::int64_t last_ = -1;  // -1: none that could be read yet
};

}  // namespace qx::trust
