#include "tools/qxview/api/RecordText.h"

#include <memory>
#include <span>

#include "tools/qxview/report/Documents.h"

namespace qx::view {

namespace {

constexpr std::size_t kPieceBytes = 32'768;
constexpr std::uint32_t kReadRecords = 256;
constexpr std::uint32_t kPieceRecordsMax = 32'768;  // read for one piece: other requests wait meanwhile

}  // namespace

RecordText::RecordText(const std::string& base_path, TextWish wish) : snapshot_(base_path), wish_(std::move(wish)) {
  rules_.now_ms = ctl::NowMs();
}

HttpReply::Text RecordText::Next() {
  if (age_ >= snapshot_.Count()) return nullptr;
  auto piece = std::make_shared<std::string>();
  const std::uint32_t begin = age_;
  std::span<const RecordView> records;
  while (piece->size() < kPieceBytes && age_ - begin < kPieceRecordsMax) {
    if (snapshot_.Read(age_, kReadRecords, records).Failed()) return nullptr;
    if (records.empty()) break;
    age_ += static_cast<std::uint32_t>(records.size());
    for (const RecordView& record : records) Add(record, *piece);
  }
  return piece;
}

void RecordText::Add(const RecordView& record, std::string& piece) {
  if (record.state == RecordState::kOverwritten) return;
  if (wish_.HasTimes() && !IsInTime(record.text)) return;
  if (Shows(wish_.filter, record.text)) piece.append(record.text).append(record.IsWhole() ? "\r\n" : "");
}

// A record without a stamp has the time of the one before it.
bool RecordText::IsInTime(std::string_view text) {
  if (const auto stamp = ctl::TimeOfRecord(text, rules_)) time_ms_ = stamp;
  if (!time_ms_.has_value()) return false;
  return *time_ms_ >= wish_.from.value_or(*time_ms_) && *time_ms_ <= wish_.to.value_or(*time_ms_);
}

}  // namespace qx::view
