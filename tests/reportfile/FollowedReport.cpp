#include "tests/reportfile/FollowedReport.h"

#include <algorithm>

namespace qx::test {

void FollowedReport::Append(const std::string& record) {
  all_.push_back(record);
  ring_.Append(record);
}

void FollowedReport::StartOver() {
  all_.clear();
  const std::uint32_t slots = ring_.writer.maxRecord;
  ring_ = {};
  ring_.writer.maxRecord = slots;
}

void FollowedReport::TakeSnapshot() {
  snapshot_oldest_ = ring_.writer.oldestIndex;
  snapshot_count_ = ring_.writer.highestIndex;
}

bool FollowedReport::Call() {
  ++calls_;
  return fail_in_ == 0 || --fail_in_ != 0;
}

bool FollowedReport::Refresh() {
  TakeSnapshot();
  return Call();
}

bool FollowedReport::Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) {
  if (start == 0) TakeSnapshot();
  for (std::uint32_t i = start; i < snapshot_count_ && i - start < std::min(count_max, answer_max_); ++i) {
    if (between_) between_();
    const std::uint32_t slot = (i + snapshot_oldest_) % snapshot_count_;
    if (slot >= ring_.ring.size()) break;
    const std::string& line = ring_.ring[slot].line;
    const std::size_t text_bytes = line.size() - 2;  // without CR LF
    if (text_bytes > kRecordBytesMax) break;
    records.push_back(line.substr(0, text_bytes));
  }
  return Call();
}

}  // namespace qx::test
