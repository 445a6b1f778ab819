#include "tools/qxrelay/send/StoreNumbers.h"

namespace qx::relay {

namespace {

constexpr std::uint64_t kCountModulus = std::uint64_t{1} << 32U;

}  // namespace

std::optional<RecordRange> RangeNear(const report::IndexHeader& header, std::uint64_t near) {
  const auto difference = static_cast<std::int32_t>(header.elementCount - static_cast<std::uint32_t>(near));
  const bool is_below_zero = difference < 0 && static_cast<std::uint64_t>(-std::int64_t{difference}) > near;
  if (is_below_zero) return std::nullopt;
  const std::uint64_t end = near + static_cast<std::uint64_t>(std::int64_t{difference});
  if (end < header.highestIndex) return std::nullopt;
  return RecordRange{.oldest = end - header.highestIndex, .end = end};
}

RecordRange FirstRange(const report::IndexHeader& header) {
  const bool has_wrapped = header.elementCount < header.highestIndex;
  const std::uint64_t end = header.elementCount + (has_wrapped ? kCountModulus : 0);
  return {.oldest = end - header.highestIndex, .end = end};
}

std::uint64_t RoundStart(const report::IndexHeader& header, const RecordRange& range) {
  const std::uint64_t in_round = report::RecordsInRound(header);
  return in_round <= range.end ? range.end - in_round : 0;
}

}  // namespace qx::relay
