// Internal: collects what the checks of a store find.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "reportfile/tools/StoreVerify.h"

namespace qx::report {

// Threads: one thread. Borrows the findings, which must outlive it.
class FindingList {
 public:
  explicit FindingList(std::vector<Finding>& findings) : findings_(findings) {}

  [[nodiscard]] bool IsEmpty() const { return findings_.empty(); }
  [[nodiscard]] bool IsFull() const { return findings_.size() >= kFindingsMax; }

  void Add(std::string_view rule, StoreFile file, std::int64_t offset, std::uint64_t value, std::string explanation) {
    if (!IsFull()) findings_.push_back({rule, file, offset, value, std::move(explanation)});
  }

  // Adds a finding about the header field at the offset `member`.
  void AddHeader(std::string_view rule, std::size_t member, std::uint32_t value, std::string explanation) {
    Add(rule, StoreFile::kIndex, static_cast<std::int64_t>(member), value, std::move(explanation));
  }

  // Adds a finding about the size of a file. Its offset is the end of the file.
  void AddSize(std::string_view rule, StoreFile file, std::int64_t size, std::string explanation) {
    Add(rule, file, size, static_cast<std::uint64_t>(size), std::move(explanation));
  }

 private:
  std::vector<Finding>& findings_;
};

}  // namespace qx::report
