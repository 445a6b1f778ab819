#include "tests/trust/rings.d/TortureRecord.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace qx::trust {

namespace {

constexpr std::size_t kHeadBytes = 16;  // "0000000000 0000 "
constexpr std::size_t kChecksumBytes = 8;

// The checksum FNV-1a.
std::uint32_t Checksum(std::string_view text) {
  std::uint32_t sum = 2166136261U;
  for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 16777619U;
  return sum;
}

std::string Hex(std::uint32_t number) {
  char digits[kChecksumBytes + 1];
  std::snprintf(digits, sizeof digits, "%08x", number);
  return digits;
}

std::size_t LengthOf(std::uint32_t number) { return 40 + number * 7919U % 381; }

std::int64_t Decimal(std::string_view digits) {
  std::int64_t number = -1;
  const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  return end == digits.data() + digits.size() ? number : -1;
}

}  // namespace

std::string TortureRecord(std::uint32_t number) {
  const std::size_t length = LengthOf(number);
  char head[kHeadBytes + 1];
  std::snprintf(head, sizeof head, "%010u %04zu ", number, length);
  std::string record = head;
  while (record.size() < length - kChecksumBytes) record += number % 5 == 0 ? "]]>" : "<a&b> ";
  record.resize(length - kChecksumBytes);
  return record + Hex(Checksum(record));
}

std::int64_t NumberOf(std::string_view text) {
  if (text.size() < kHeadBytes + kChecksumBytes) return -1;
  const std::string_view body = text.substr(0, text.size() - kChecksumBytes);
  if (text.substr(body.size()) != Hex(Checksum(body))) return -1;
  if (Decimal(text.substr(11, 4)) != static_cast<std::int64_t>(text.size())) return -1;
  return Decimal(text.substr(0, 10));
}

void Tally::Add(const Tally& other) {
  transfers += other.transfers;
  records += other.records;
  mixed += other.mixed;
  forward += other.forward;
  back += other.back;
  malformed += other.malformed;
}

void TransferJudge::Take(std::string_view text) {
  ++tally_.records;
  const std::int64_t number = NumberOf(text);
  if (number < 0) {
    ++tally_.mixed;
    if (last_ >= 0) ++last_;  // for the one that was expected
    return;
  }
  if (last_ >= 0 && number > last_ + 1) ++tally_.forward;
  if (last_ >= 0 && number <= last_) ++tally_.back;
  last_ = number;
}

void TransferJudge::TakeLines(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find("\r\n"), text.size());
    Take(text.substr(0, end));
    text.remove_prefix(std::min(end + 2, text.size()));
  }
}

}  // namespace qx::trust
