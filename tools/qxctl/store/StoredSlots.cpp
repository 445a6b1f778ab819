#include "tools/qxctl/store/StoredSlots.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "reportfile/StoreFormat.h"

namespace qx::ctl {

namespace {

constexpr std::int64_t kSlotBytes = 4;
constexpr std::int64_t kFileEnd = std::numeric_limits<std::int64_t>::max();

}  // namespace

StoredSlots::StoredSlots(const std::string& index_file) : file_(file::OpenRegular(index_file.c_str(), O_RDONLY)) {}

std::uint32_t StoredSlots::NextFrom(std::uint32_t slot, std::uint32_t end) {
  const std::int64_t offset = report::SlotOffset(slot);
  if (offset < data_begin_ || offset >= data_end_) {
    data_begin_ = lseek(file_.Number(), offset, SEEK_DATA);
    const bool is_rest_a_hole = data_begin_ < 0 && errno == ENXIO;
    if (is_rest_a_hole) return end;
    if (data_begin_ < 0) data_begin_ = offset;
    data_end_ = lseek(file_.Number(), data_begin_, SEEK_HOLE);
    if (data_end_ < 0) data_end_ = kFileEnd;
  }
  if (offset >= data_begin_) return slot;
  const std::int64_t slots_in_hole = (data_begin_ - offset + kSlotBytes - 1) / kSlotBytes;
  return static_cast<std::uint32_t>(std::min<std::int64_t>(slot + slots_in_hole, end));
}

std::uint32_t StoredSlots::EndFrom(std::uint32_t slot, std::uint32_t end) const {
  const std::int64_t stored = (data_end_ - report::SlotOffset(slot)) / kSlotBytes;  // a slot may end in a hole
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(slot + stored, std::int64_t{slot} + 1, end));
}

}  // namespace qx::ctl
