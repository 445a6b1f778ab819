// Internal: reads the slots of a store and the lines of its data file through windows (ByteSource.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "reportfile/tools/ByteSource.h"

namespace qx::report {

// Threads: one thread. Owns: two windows. Borrows the sources, which must outlive it.
// Failure: bytes that cannot be read count as missing. Throws std::bad_alloc.
class StoreLines {
 public:
  StoreLines(ByteSource& index, ByteSource& data) : slots_(index), texts_(data) {}

  // The bytes of the data file at `offset` (WindowedBytes::At).
  [[nodiscard]] std::string_view At(std::int64_t offset, std::size_t requested) { return texts_.At(offset, requested); }
  // The offset in a slot; unset if the file does not have all bytes of the slot.
  [[nodiscard]] std::optional<std::uint32_t> SlotAt(std::uint32_t slot);
  // A part of the text in [at, end), from `at` on; at least one byte, unless the file ends there.
  [[nodiscard]] std::string_view TextAt(std::int64_t at, std::int64_t end);
  // The offset of the first NUL in [at, end), or `end`.
  [[nodiscard]] std::int64_t FindNul(std::int64_t at, std::int64_t end);
  // The offset of the first line feed or NUL from `at` on, or the end of the file.
  [[nodiscard]] std::int64_t FindLineFeed(std::int64_t at);
  // The offset after the line feed of the line at `begin`, if it ends with CR LF and has no NUL.
  [[nodiscard]] std::optional<std::int64_t> EndOfLine(std::int64_t begin);
  // The offset of CR LF and a marker from `at` on, or -1. The search ends at a NUL: no writer leaves a NUL, and so huge
  // holes are not searched.
  [[nodiscard]] std::int64_t FindLineEndAndMarker(std::int64_t at);

 private:
  WindowedBytes slots_;
  WindowedBytes texts_;
};

}  // namespace qx::report
