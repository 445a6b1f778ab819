// Records that identify themselves: number, length and checksum are in the text. So a reader can distinguish a whole
// record from a mixture of two, and check the order of a transfer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qx::trust {

// The text of record `number`: 40 to 420 characters without a line end. Some texts contain the end of a CDATA section.
std::string TortureRecord(std::uint32_t number);

// The number of a whole record; -1 for any other text.
std::int64_t NumberOf(std::string_view text);

// Counts of the records that readers got. A record steps forward if its number is more than one above that of the
// previous record (the records between them were lost to this transfer); it steps back if its number is not above that
// of the previous record.
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
  // Judges a text of many records, each with its line end.
  void TakeLines(std::string_view text);

 private:
  Tally& tally_;
  std::int64_t last_ = -1;  // -1: no record could be read yet
};

}  // namespace qx::trust
