#include "debug/EntryHeader.h"

#include <algorithm>
#include <cstdio>
#include <exception>

#include "debug/TraceText.h"
#include "process/Process.h"

namespace qx::debug {

namespace {

constexpr std::size_t kSecondBytes = 22;  // "yyyy-mm-dd hh:mm:ss", years of up to six digits and a NUL
constexpr const char* kUnknownStamp = "yyyy-mm-dd hh:mm:ss.mmm";

}  // namespace

const char* StampText::At(const timeval& now) noexcept {
  if (!is_formatted_ || now.tv_sec != second_) FormatSecond(now.tv_sec);
  if (!is_formatted_) return kUnknownStamp;
  PutMilliseconds(static_cast<unsigned>(now.tv_usec / 1000));
  return text_;
}

void StampText::FormatSecond(std::time_t second) noexcept {
  std::tm local{};
  is_formatted_ = false;
  if (::localtime_r(&second, &local) == nullptr) return;
  second_length_ = std::strftime(text_, kSecondBytes, "%F %H:%M:%S", &local);
  if (second_length_ == 0) return;
  second_ = second;
  is_formatted_ = true;
}

void StampText::PutMilliseconds(unsigned milliseconds) noexcept {
  char* at = text_ + second_length_;
  *at++ = '.';
  *at++ = static_cast<char>('0' + milliseconds / 100 % 10);
  *at++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *at++ = static_cast<char>('0' + milliseconds % 10);
  *at = '\0';
}

std::size_t FormatEntryHeader(char* buffer, std::size_t size, const EntryHeaderParts& parts) noexcept {
  if (size == 0) return 0;
  const int length = parts.resident_kilobytes == nullptr
                         ? std::snprintf(buffer, size, "%s [%08X] %-13s ", parts.stamp, parts.thread, parts.module)
                         : std::snprintf(buffer, size, "%s [%08X] %8zu %s !%-13s ", parts.stamp, parts.thread,
                                         *parts.resident_kilobytes, "KB", parts.module);
  return std::min(static_cast<std::size_t>(std::max(length, 0)), size - 1);
}

std::size_t ResidentKilobytes(std::int32_t pid) noexcept try {
  constexpr int kInKilobytes = 1;
  unsigned long kilobytes = 0;
  const bool is_read =
      CProcess::GetProcessMemorySpecificInfo(static_cast<unsigned>(pid), &kilobytes, "VmRSS:", kInKilobytes);
  return is_read ? kilobytes : 0;
} catch (const std::exception&) {
  return 0;  // out of memory: tracing raises nothing
}

void FormatStartTime(std::time_t time, char (&text)[32]) noexcept {
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr || ::asctime_r(&local, text) == nullptr) {
    CopyText(text, "\nwww mmm dd hh:mm:ss yyyy");
  }
}

}  // namespace qx::debug
