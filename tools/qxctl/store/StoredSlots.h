// Finds the slots of an index file that are stored. A sparse file of 4 KiB can have a hole of billions of slots, all of
// which read as offset 0. A writer leaves no such hole: in its file at most one record is at offset 0.
#pragma once

#include <cstdint>
#include <string>

#include "base/File.h"

namespace qx::ctl {

// Threads: one thread.
// Failure: where the file system does not show holes, every slot counts as stored.
class StoredSlots {
 public:
  explicit StoredSlots(const std::string& index_file);

  // The first slot from `slot` on that is not in a hole of the file; `end` if all slots before `end` are in holes.
  [[nodiscard]] std::uint32_t NextFrom(std::uint32_t slot, std::uint32_t end);
  // The first slot after `slot` that may be in a hole, or `end`. `slot` is a result of NextFrom.
  [[nodiscard]] std::uint32_t EndFrom(std::uint32_t slot, std::uint32_t end) const;

 private:
  file::Descriptor file_;
  std::int64_t data_begin_ = 0;  // the bytes between these two are known to be stored
  std::int64_t data_end_ = 0;
};

}  // namespace qx::ctl
