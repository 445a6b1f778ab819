#include "markup/ElemPosTree.h"

#include <algorithm>
#include <utility>

ElemPosTree::ElemPosTree(const ElemPosTree& other, std::uint32_t count) : ElemPosTree() {
  while (capacity_ < other.capacity_) Grow(other.capacity_);
  for (std::uint32_t first = 0; first < count; first += kSegmentRecords) {
    const std::uint32_t records = std::min<std::uint32_t>(count - first, kSegmentRecords);
    std::copy_n(&other[first], records, &(*this)[first]);
  }
}

void ElemPosTree::Grow(std::int64_t records) {
  if (records <= capacity_) return;
  if (records <= kFewRecords) return UseFewRecords(static_cast<std::int32_t>(records));

  const std::int32_t segments_used = SegmentsUsed();
  records = std::min<std::int64_t>(records, std::int64_t{segments_used + 1} * kSegmentRecords);
  const auto segment = static_cast<std::int32_t>((records - 1) / kSegmentRecords);
  GrowSegmentTable(segment + 1);

  const std::int32_t records_in_last = segments_used == 0 ? 0 : capacity_ - (segments_used - 1) * kSegmentRecords;
  if (segment == segments_used && segments_used > 0 && records_in_last < kSegmentRecords) {
    ResizeSegment(segments_used - 1, records_in_last, kSegmentRecords);
    capacity_ = segments_used * kSegmentRecords;
  }
  ResizeSegment(segment, segment < segments_used ? records_in_last : 0,
                static_cast<std::int32_t>(records - std::int64_t{segment} * kSegmentRecords));
  capacity_ = static_cast<std::int32_t>(records);
}

void ElemPosTree::UseFewRecords(std::int32_t records) {
  segments_[0] = few_records_.data();
  segment_table_size_ = kFewSegments;
  capacity_ = records;
}

void ElemPosTree::RemoveAll() {
  for (std::int32_t segment = 0; segment < SegmentsUsed(); ++segment) Free(std::exchange(segments_[segment], nullptr));
  many_segments_.reset();
  segments_ = few_segments_.data();
  capacity_ = 0;
  segment_table_size_ = 0;
}

void ElemPosTree::Free(ElemPos* segment) noexcept {
  if (segment != few_records_.data()) delete[] segment;
}

void ElemPosTree::GrowSegmentTable(std::int32_t segments) {
  if (segments <= segment_table_size_) return;
  const std::int32_t size = 2 * segments + 4;
  if (size > kFewSegments) {
    auto table = std::make_unique<ElemPos*[]>(static_cast<std::size_t>(size));
    std::copy_n(segments_, segment_table_size_, table.get());
    many_segments_ = std::move(table);
    segments_ = many_segments_.get();
  }
  segment_table_size_ = size;
}

// New records are not initialised, so a large segment uses memory only for the pages that are filled.
void ElemPosTree::ResizeSegment(std::int32_t segment, std::int32_t records_used, std::int32_t records) {
  auto* const grown = new ElemPos[static_cast<std::size_t>(records)];
  std::copy_n(segments_[segment], records_used, grown);
  Free(std::exchange(segments_[segment], grown));
}
