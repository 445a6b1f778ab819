// Stores the records of a document's elements: 32 bytes each, addressed by a 32-bit index, in segments of 65,536
// records.
//
// A record contains no text, only offsets into the document's one string. Because of the segments, a tree that grows is
// not copied as a whole. All segments but the last are full, so that index arithmetic is a shift and a mask.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

// Flags of a record, in the high half of its level word.
inline constexpr std::uint32_t kElemFirst = 0x80000;           // the first child of its parent
inline constexpr std::uint32_t kElemNoEnd = 0x100000;          // a start tag without end tag
inline constexpr std::uint32_t kElemUnendedInside = 0x200000;  // its content has a lone end tag or a syntax fault
inline constexpr std::uint32_t kElemIllFormed = 0x800000;      // on record 0: the document is not well formed

// One element. Record 0 represents the document: its first child is the root element.
struct ElemPos {
  static constexpr std::uint32_t kStartTagLengthMax = (1U << 22) - 1;
  static constexpr std::uint32_t kEndTagLengthMax = (1U << 10) - 1;
  static constexpr std::uint32_t kLevelMax = 0xFFFF;

  std::uint32_t start;            // offset of the "<"
  std::uint32_t length;           // of the whole element; of the start tag alone when there is no end tag
  std::uint32_t tag_lengths;      // low 22 bits: start tag with "<" and ">"; high 10 bits: end tag, 0 without one
  std::uint32_t level_and_flags;  // low 16 bits: nesting depth, the root is 0; high 16 bits: kElem flags
  std::uint32_t parent;           // 0: the document
  std::uint32_t first_child;      // 0: none
  std::uint32_t next;             // next sibling, 0 for the last; for a released record, the next released record
  std::uint32_t previous;         // previous sibling; for a first child, the last sibling

  std::uint32_t StartTagLength() const { return tag_lengths & kStartTagLengthMax; }
  std::uint32_t EndTagLength() const { return tag_lengths >> 22; }
  static constexpr std::uint32_t TagLengths(std::uint32_t start_tag, std::uint32_t end_tag) {
    return start_tag | end_tag << 22;
  }
  void SetTagLengths(std::uint32_t start_tag, std::uint32_t end_tag) { tag_lengths = TagLengths(start_tag, end_tag); }

  std::uint32_t Level() const { return level_and_flags & kLevelMax; }
  void SetLevel(std::uint32_t level) { level_and_flags = (level_and_flags & ~kLevelMax) | level; }

  bool Has(std::uint32_t flag) const { return (level_and_flags & flag) != 0; }
  void Set(std::uint32_t flag) { level_and_flags |= flag; }
  void Clear(std::uint32_t flag) { level_and_flags &= ~flag; }

  std::uint32_t End() const { return start + length; }
  std::uint32_t ContentStart() const { return start + StartTagLength(); }
  std::uint32_t ContentEnd() const { return End() - EndTagLength(); }

  // `<a/>`, as opposed to `<a></a>` and to a start tag without end tag.
  bool IsEmptyElement() const { return EndTagLength() == 0 && !Has(kElemNoEnd); }
};
static_assert(sizeof(ElemPos) == 32 && std::is_trivially_copyable_v<ElemPos>);
static_assert(offsetof(ElemPos, start) == 0 && offsetof(ElemPos, length) == 4);
static_assert(offsetof(ElemPos, tag_lengths) == 8 && offsetof(ElemPos, level_and_flags) == 12);
static_assert(offsetof(ElemPos, parent) == 16 && offsetof(ElemPos, first_child) == 20);
static_assert(offsetof(ElemPos, next) == 24 && offsetof(ElemPos, previous) == 28);

// The records of one document, by index.
//
// Threads: one thread at a time, the one that uses the document.
// Owns: the segments.
// Failure: Grow throws std::bad_alloc. Records in use keep their values, and the tree stays usable.
class ElemPosTree {
 public:
  static constexpr std::int32_t kSegmentRecords = 65536;

  // Not "= default", because value initialisation would then write zeros into few_records_.
  ElemPosTree() noexcept {}  // NOLINT(modernize-use-equals-default)
  // Copies the first `count` records of `other`; the capacity becomes that of `other`.
  ElemPosTree(const ElemPosTree& other, std::uint32_t count);
  ElemPosTree(const ElemPosTree&) = delete;
  ElemPosTree& operator=(const ElemPosTree&) = delete;
  ~ElemPosTree() { RemoveAll(); }

  ElemPos& operator[](std::uint32_t index) { return segments_[index >> 16][index & 0xFFFF]; }
  const ElemPos& operator[](std::uint32_t index) const { return segments_[index >> 16][index & 0xFFFF]; }

  // Raises the capacity to `records`, but by at most one segment: after a larger request, the next segment is complete.
  // New records are not initialised. A request below the capacity does nothing.
  void Grow(std::int64_t records);

  void RemoveAll();

  std::int32_t Capacity() const { return capacity_; }
  std::int32_t SegmentTableSize() const { return segment_table_size_; }

 private:
  std::int32_t SegmentsUsed() const { return (capacity_ + kSegmentRecords - 1) / kSegmentRecords; }
  void UseFewRecords(std::int32_t records);
  void GrowSegmentTable(std::int32_t segments);
  void ResizeSegment(std::int32_t segment, std::int32_t records_used, std::int32_t records);
  void Free(ElemPos* segment) noexcept;

  // Up to this many segments the segment table is few_segments_; a larger table is allocated.
  static constexpr std::int32_t kFewSegments = 6;
  // Up to this many records the first segment is few_records_: enough for a request or a short reply.
  static constexpr std::int32_t kFewRecords = 16;

  std::array<ElemPos*, kFewSegments> few_segments_{};
  std::unique_ptr<ElemPos*[]> many_segments_;
  ElemPos** segments_ = few_segments_.data();
  std::int32_t capacity_ = 0;
  std::int32_t segment_table_size_ = 0;
  std::array<ElemPos, kFewRecords> few_records_;
};
