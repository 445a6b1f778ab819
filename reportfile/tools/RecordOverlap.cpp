#include "reportfile/tools/RecordOverlap.h"

#include <algorithm>

namespace qx::report {

namespace {

constexpr std::uint64_t kFnvOffset = 0xCBF29CE484222325;
constexpr std::uint64_t kFnvPrime = 0x100000001B3;

bool AllEqual(std::span<const std::uint64_t> hashes) {
  return std::all_of(hashes.begin(), hashes.end(), [&](std::uint64_t hash) { return hash == hashes.front(); });
}

bool AllDifferent(std::span<const std::uint64_t> hashes) {
  std::vector<std::uint64_t> sorted(hashes.begin(), hashes.end());
  std::sort(sorted.begin(), sorted.end());
  return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

bool Fits(std::span<const std::uint64_t> tail, std::span<const std::uint64_t> window, std::size_t index) {
  const auto before = window.subspan(index - tail.size(), tail.size());
  return std::equal(tail.rbegin(), tail.rend(), before.rbegin());
}

// Whether the only matching position is certain, as far as texts can show this.
bool CanDecide(std::span<const std::uint64_t> overlap, std::size_t compared) {
  if (compared < overlap.size()) return AllDifferent(overlap);
  return overlap.size() == 1 || !AllEqual(overlap);
}

}  // namespace

std::uint64_t RecordHash(std::string_view record) {
  std::uint64_t hash = kFnvOffset;
  for (const char byte : record) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= kFnvPrime;
  }
  return hash;
}

OverlapPlace FindOverlap(std::span<const std::uint64_t> overlap, std::span<const std::uint64_t> window,
                         bool from_oldest) {
  OverlapPlace place;
  std::size_t fitting = 0;
  for (std::size_t index = from_oldest ? 1 : overlap.size(); index <= window.size(); ++index) {
    const std::size_t compared = std::min(index, overlap.size());
    if (!Fits(overlap.last(compared), window, index)) continue;
    ++fitting;
    place.index = index;
    place.compared = compared;
  }
  if (fitting == 0) return place;
  const bool is_found = fitting == 1 && CanDecide(overlap, place.compared);
  place.verdict = is_found ? OverlapVerdict::kFound : OverlapVerdict::kAmbiguous;
  return place;
}

}  // namespace qx::report
