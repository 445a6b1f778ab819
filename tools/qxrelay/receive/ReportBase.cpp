#include "tools/qxrelay/receive/ReportBase.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>

#include "reportfile/tools/RecordOverlap.h"

namespace qx::relay {

namespace {

constexpr std::string_view kMark = "qxrelay-base 1";
constexpr std::size_t kDigits = 16;
constexpr int kHexadecimal = 16;
// Counts are modulo 2^32: a count is after another one if the difference is at most this number, otherwise before it.
constexpr std::uint32_t kAheadMax = 0x7FFFFFFF;

std::string Field(std::uint64_t number) {
  char digits[kDigits + 2];
  std::snprintf(digits, sizeof digits, " %016" PRIx64, number);
  return digits;
}

// " 000000000000002a..." => 42; removes it from the text.
std::optional<std::uint64_t> TakeField(std::string_view& line) {
  if (line.size() <= kDigits || line[0] != ' ') return std::nullopt;
  const std::string_view digits = line.substr(1, kDigits);
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + kDigits, number, kHexadecimal);
  if (error != std::errc() || end != digits.data() + kDigits || Field(number).substr(1) != digits) return std::nullopt;
  line.remove_prefix(kDigits + 1);
  return number;
}

std::optional<ReportBase> BaseOfLine(std::string_view line) {
  const std::string_view whole = line;
  if (line.size() != kBaseLineBytes || !line.starts_with(kMark) || !line.ends_with('\n')) return std::nullopt;
  line.remove_prefix(kMark.size());
  ReportBase base;
  std::uint64_t count = 0;
  for (std::uint64_t* const field :
       {&base.generation, &base.incarnation, &count, &base.next, &base.sequence, &base.stream, &base.lost}) {
    const std::optional<std::uint64_t> number = TakeField(line);
    if (!number.has_value()) return std::nullopt;
    *field = *number;
  }
  const std::size_t checked = whole.size() - line.size();
  const std::optional<std::uint64_t> check = TakeField(line);
  base.count = static_cast<std::uint32_t>(count);
  const bool is_whole = check == report::RecordHash(whole.substr(0, checked)) && count == base.count;
  if (!is_whole || base.generation == 0) return std::nullopt;
  return base;
}

bool IsLater(const std::optional<ReportBase>& left, const std::optional<ReportBase>& right) {
  return left.has_value() && (!right.has_value() || left->generation > right->generation);
}

}  // namespace

std::string TextOfBase(const ReportBase& base) {
  std::string text(kMark);
  for (const std::uint64_t field : {base.generation, base.incarnation, std::uint64_t{base.count}, base.next,
                                    base.sequence, base.stream, base.lost}) {
    text += Field(field);
  }
  text += Field(report::RecordHash(text));
  text.resize(kBaseLineBytes - 1, ' ');
  return text + '\n';
}

BaseLines BasesOfText(std::string_view text) {
  BaseLines lines;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (text.size() > i * kBaseLineBytes) lines[i] = BaseOfLine(text.substr(i * kBaseLineBytes, kBaseLineBytes));
  }
  return lines;
}

std::size_t PlaceOfNextBase(const BaseLines& lines, const std::optional<ReportBase>& kept) {
  return kept.has_value() && lines[0] == kept ? 1 : 0;
}

FoundBase FindBase(const BaseLines& lines, std::uint32_t count) {
  const bool is_second_later = IsLater(lines[1], lines[0]);
  const std::optional<ReportBase>& newest = lines[is_second_later ? 1 : 0];
  const std::optional<ReportBase>& older = lines[is_second_later ? 0 : 1];
  if (!newest.has_value()) return {};
  if (newest->incarnation == 0) {  // a later change of the files ends the contradiction
    return {.fit = newest->count == count && count != 0 ? BaseFit::kContradicted : BaseFit::kNone, .base = *newest};
  }
  for (const std::optional<ReportBase>& base : {newest, older}) {
    if (!base.has_value() || base->incarnation == 0) continue;
    const std::uint32_t ahead = count - base->count;
    if (ahead <= kAheadMax) return {.fit = BaseFit::kFits, .base = *base, .next = base->next + ahead};
  }
  return {.fit = BaseFit::kShrunk, .base = *newest, .next = newest->next};
}

}  // namespace qx::relay
