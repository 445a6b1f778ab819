#include "tests/reportfile/RingModel.h"

namespace qx::test {

void RingModel::Append(const std::string& record) {
  all_.push_back(record);
  if (kept_.size() < slots_) {
    kept_.push_back(record);
    return;
  }
  kept_[oldest_] = record;
  oldest_ = (oldest_ + 1) % slots_;
}

void RingModel::StartOver() {
  all_.clear();
  kept_.clear();
  oldest_ = 0;
}

bool RingModel::Call() {
  ++calls_;
  return fail_in_ == 0 || --fail_in_ != 0;
}

bool RingModel::Refresh() {
  snapshot_oldest_ = oldest_;
  snapshot_count_ = static_cast<std::uint32_t>(kept_.size());
  return Call();
}

bool RingModel::Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) {
  if (start == 0) {
    snapshot_oldest_ = oldest_;
    snapshot_count_ = static_cast<std::uint32_t>(kept_.size());
  }
  for (std::uint32_t i = start; i < snapshot_count_ && i - start < std::min(count_max, answer_max_); ++i) {
    if (between_) between_();
    const std::uint32_t slot = (i + snapshot_oldest_) % snapshot_count_;
    if (slot >= kept_.size() || kept_[slot].size() > kRecordBytesMax) break;
    records.push_back(kept_[slot]);
  }
  return Call();
}

}  // namespace qx::test
