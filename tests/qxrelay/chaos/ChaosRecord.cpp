#include "tests/qxrelay/chaos/ChaosRecord.h"

#include <charconv>
#include <cstdio>

namespace qx::chaos {

namespace {

constexpr std::size_t kChecksumBytes = 8;
constexpr std::size_t kLengthMin = 60;
constexpr std::size_t kLengths = 121;

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

std::size_t LengthOf(std::uint64_t number) { return kLengthMin + static_cast<std::size_t>(number * 7919U % kLengths); }

}  // namespace

std::string ChaosRecord(std::string_view report, std::uint64_t number) {
  const std::size_t length = LengthOf(number);
  char head[32];
  std::snprintf(head, sizeof head, " %012llu %04zu ", static_cast<unsigned long long>(number), length);
  std::string record = std::string(report) + head;
  const char fill = static_cast<char>('a' + number % 26);  // a mixture of two records shows in the checksum, too
  record.resize(length - kChecksumBytes, fill);
  return record + Hex(Checksum(record));
}

std::optional<std::uint64_t> NumberOfRecord(std::string_view report, std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  constexpr std::size_t kDigits = 12;
  if (!text.starts_with(report) || text.size() < report.size() + 1 + kDigits) return std::nullopt;
  const std::string_view digits = text.substr(report.size() + 1, kDigits);
  std::uint64_t number = 0;
  const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  if (end != digits.data() + digits.size() || text != ChaosRecord(report, number)) return std::nullopt;
  return number;
}

}  // namespace qx::chaos
