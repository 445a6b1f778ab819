// Reads and writes the base of a report on a collector: it shows which number the records of its files have.
//
// The files count their records, modulo 2^32. A base says "when the files had counted `count` records, the next one had
// number `next`". So the position of a report is next + (records counted now - count). A base is written for each
// incarnation and each gap, and is on the disk before the first record that needs it. So after a crash, files and base
// together show a position that was true at some time, and all messages after this position come again.
//
// A base file is next to the files of its report and has two lines of kBaseLineBytes. A new base replaces the older
// line; the other line stays whole. After a loss of power, the files may lack the records before the newest base: then
// the older line is in force.
//
//   qxrelay-base 1 GENERATION INCARNATION COUNT NEXT SEQUENCE STREAM LOST CHECK
//
// All but the first two are hexadecimal numbers of fixed width. CHECK is the hash (RecordHash) of the line before it.
//
// Everything here is pure. Throws std::bad_alloc. [any thread]
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::relay {

inline constexpr std::size_t kBaseLineBytes = 160;
inline constexpr std::string_view kBaseSuffix = ".relay";

struct ReportBase {
  std::uint64_t generation = 0;   // 1 for the first base of a report; a later one has a larger number
  std::uint64_t incarnation = 0;  // 0: the files contradict the messages, since they counted `count` records
  std::uint32_t count = 0;
  std::uint64_t next = 0;
  std::uint64_t sequence = 0;  // of the message with which the incarnation began here
  std::uint64_t stream = 0;    // when the stream of that sequence was created
  std::uint64_t lost = 0;      // records in gaps, since the report is on this collector

  friend bool operator==(const ReportBase&, const ReportBase&) = default;
};

[[nodiscard]] std::string TextOfBase(const ReportBase& base);

// The bases in the two lines of the file, in their order; unset for a line that is damaged or missing.
using BaseLines = std::array<std::optional<ReportBase>, 2>;
[[nodiscard]] BaseLines BasesOfText(std::string_view text);

// The index of the line for the next base. It is not the line of `kept`, the base that is in force.
[[nodiscard]] std::size_t PlaceOfNextBase(const BaseLines& lines, const std::optional<ReportBase>& kept);

enum class BaseFit : std::uint8_t {
  kNone,          // there is no base: nothing is known of the records in the files
  kFits,          // `base` is in force, `next` follows from it
  kShrunk,        // the files have counted fewer records than any base says; `base` and `next` are the newest base
  kContradicted,  // the files are as they were when they contradicted a message
};

struct FoundBase {
  BaseFit fit = BaseFit::kNone;
  ReportBase base;
  std::uint64_t next = 0;

  friend bool operator==(const FoundBase&, const FoundBase&) = default;
};

// The base that is in force for files that have counted `count` records.
//   newest next 100 at count 40   older next 20 at count 20   count 45 => next 105
//                                                             count 30 => next 30, of the older one
//                                                             count 5  => shrunk, next 100
[[nodiscard]] FoundBase FindBase(const BaseLines& lines, std::uint32_t count);

}  // namespace qx::relay
