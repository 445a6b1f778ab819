#include "debug/tools/TraceLine.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>

#include "debug/EntryHeader.h"

namespace qx::debug {

namespace {

constexpr std::size_t kLinePartBytesMax = std::size_t{64} << 10;
constexpr std::size_t kWindowBytes = 2 * kLinePartBytesMax;
constexpr std::size_t kModuleColumnChars = 13;
constexpr std::string_view kUnknownStamp = "yyyy-mm-dd hh:mm:ss.mmm";
constexpr std::size_t kStampChars = kUnknownStamp.size();

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'A' && c <= 'F'); }

// Whether `text` begins like `shape`, in which "9" matches any digit and "F" any hexadecimal digit.
bool HasShape(std::string_view text, std::string_view shape) {
  return text.size() >= shape.size() && std::equal(shape.begin(), shape.end(), text.begin(), [](char s, char c) {
           return s == '9' ? IsDigit(c) : s == 'F' ? IsHexDigit(c) : s == c;
         });
}

bool BeginsWithStamp(std::string_view line) {
  return HasShape(line, "9999-99-99 99:99:99.999") || line.starts_with(kUnknownStamp);
}

int Number(std::string_view digits) {
  int number = 0;
  (void)std::from_chars(digits.data(), digits.data() + digits.size(), number);  // the shape has been checked
  return number;
}

// The resident size that memory traces show, "   51234 KB !"; removes it from `rest`.
std::optional<std::uint64_t> TakeResident(std::string_view& rest) {
  constexpr std::string_view kAfter = " KB !";
  const std::size_t digits = std::min(rest.find_first_not_of(' '), rest.size());
  const std::size_t end = std::min(rest.find_first_not_of("0123456789", digits), rest.size());
  if (end < 8 || !rest.substr(end).starts_with(kAfter)) return std::nullopt;
  const auto kilobytes = ParseDecimal(rest.substr(digits, end - digits));
  if (kilobytes.has_value()) rest.remove_prefix(end + kAfter.size());
  return kilobytes;
}

// The number of characters of the module column. A longer name ends at its first blank, or at the greatest length of a
// header.
std::size_t ModuleChars(std::string_view rest, std::size_t chars_max) {
  const std::size_t blank = rest.find(' ', std::min(kModuleColumnChars, rest.size()));
  return std::min({blank, rest.size(), chars_max});
}

}  // namespace

TraceLineReader::TraceLineReader(const TraceSource& source, std::uint64_t begin, std::uint64_t end)
    : source_(&source), at_(begin), end_(std::min(end, source.Size())), window_begin_(begin) {}

std::string_view TraceLineReader::Available() const {
  const std::size_t used = static_cast<std::size_t>(at_ - window_begin_);
  return {window_.data() + used, window_bytes_ - used};
}

void TraceLineReader::Refill() {
  const std::string_view kept = Available();
  if (window_.empty()) window_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, end_ - at_)));
  if (!kept.empty()) std::memmove(window_.data(), kept.data(), kept.size());
  window_begin_ = at_;
  window_bytes_ = kept.size();
  const std::uint64_t from = window_begin_ + window_bytes_;
  const std::uint64_t requested = std::min<std::uint64_t>(window_.size() - window_bytes_, end_ - from);
  window_bytes_ += source_->ReadAt(from, window_.data() + window_bytes_, static_cast<std::size_t>(requested));
}

void TraceLineReader::SkipHole() {
  while (!is_within_line_ && at_ < end_) {
    if (Available().empty()) Refill();
    const std::string_view there = Available();
    const std::size_t nuls = std::min(there.find_first_not_of('\0'), there.size());
    at_ += nuls;
    hole_bytes_ += nuls;
    if (nuls < there.size() || there.empty()) return;
  }
}

bool TraceLineReader::Next(TraceLine& line) {
  SkipHole();
  if (at_ >= end_) return false;
  std::size_t feed = Available().find('\n');
  if (feed == std::string_view::npos && Available().size() < kLinePartBytesMax) {
    Refill();
    feed = Available().find('\n');
  }
  const std::string_view there = Available();
  if (there.empty()) return false;
  const std::size_t length = std::min({feed, there.size(), kLinePartBytesMax});
  line.has_end = length == feed;
  line.text = there.substr(0, length);
  line.begin = at_;
  line.is_rest = is_within_line_;
  at_ += length + (line.has_end ? 1 : 0);
  line.end = at_;
  is_within_line_ = !line.has_end;
  return true;
}

std::optional<std::uint64_t> ParseDecimal(std::string_view digits) {
  std::uint64_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::optional<std::int64_t> ParseTraceStamp(std::string_view stamp) {
  if (stamp.size() != kStampChars || !HasShape(stamp, "9999-99-99 99:99:99.999")) return std::nullopt;
  const std::chrono::year_month_day day{std::chrono::year(Number(stamp.substr(0, 4))),
                                        std::chrono::month(static_cast<unsigned>(Number(stamp.substr(5, 2)))),
                                        std::chrono::day(static_cast<unsigned>(Number(stamp.substr(8, 2))))};
  const int hour = Number(stamp.substr(11, 2));
  const int minute = Number(stamp.substr(14, 2));
  const int second = Number(stamp.substr(17, 2));
  if (!day.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(day).time_since_epoch().count();
  return (((days * 24 + hour) * 60 + minute) * 60 + second) * 1000 + Number(stamp.substr(20, 3));
}

std::optional<TraceHeader> ParseTraceHeader(std::string_view line) {
  if (!BeginsWithStamp(line) || !HasShape(line.substr(kStampChars), " [FFFFFFFF] ")) return std::nullopt;
  TraceHeader header{};
  header.stamp = line.substr(0, kStampChars);
  header.stamp_ms = ParseTraceStamp(header.stamp);
  if (!header.stamp_ms.has_value() && header.stamp != kUnknownStamp) return std::nullopt;
  const std::string_view thread = line.substr(kStampChars + 2, 8);
  (void)std::from_chars(thread.data(), thread.data() + thread.size(), header.thread, 16);  // 8 digits always fit

  std::string_view rest = line.substr(kStampChars + 12);
  header.resident_kb = TakeResident(rest);
  const std::size_t before_module = line.size() - rest.size();
  const std::size_t chars_left = kEntryHeaderCharsMax - std::min(before_module, kEntryHeaderCharsMax);
  const std::size_t module_chars = ModuleChars(rest, chars_left);
  header.module = rest.substr(0, module_chars);
  header.module = header.module.substr(0, header.module.find_last_not_of(' ') + 1);
  const bool has_blank = module_chars < rest.size() && module_chars < chars_left;
  header.length = before_module + module_chars + (has_blank ? 1 : 0);
  return header;
}

}  // namespace qx::debug
