#include "debug/EntryHeader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "debug/TraceText.h"
#include "process/Process.h"

namespace qx::debug {

namespace {

constexpr std::size_t kSecondBytes = 22;  // "yyyy-mm-dd hh:mm:ss", years of up to six digits and a NUL
constexpr const char* kUnknownStamp = "yyyy-mm-dd hh:mm:ss.mmm";
constexpr std::size_t kModuleColumnChars = 13;

// Writes the milliseconds as three digits.
void PutMilliseconds(char* to, const timeval& now) noexcept {
  const unsigned milliseconds = static_cast<unsigned>(now.tv_usec) / 1000;
  to[0] = static_cast<char>('0' + milliseconds / 100 % 10);
  to[1] = static_cast<char>('0' + milliseconds / 10 % 10);
  to[2] = static_cast<char>('0' + milliseconds % 10);
}

// Appends texts to a buffer; the part that does not fit is dropped.
class FieldWriter {
 public:
  FieldWriter(char* buffer, std::size_t chars_max) noexcept : begin_(buffer), at_(buffer), end_(buffer + chars_max) {}

  void Put(std::string_view text) noexcept {
    const std::size_t length = std::min(text.size(), Space());
    std::memcpy(at_, text.data(), length);
    at_ += length;
  }

  // Appends at least `width` characters: blanks follow a shorter text.
  void PutPadded(std::string_view text, std::size_t width) noexcept {
    Put(text);
    if (text.size() >= width) return;
    const std::size_t blanks = std::min(width - text.size(), Space());
    std::memset(at_, ' ', blanks);
    at_ += blanks;
  }

  // Appends eight hexadecimal digits, in capital letters.
  void PutHex(std::uint32_t number) noexcept {
    char digits[8];
    for (std::size_t i = sizeof digits; i > 0; number >>= 4) digits[--i] = "0123456789ABCDEF"[number & 0xF];
    Put({digits, sizeof digits});
  }

  // Ends the text with NUL, for which the buffer has a byte, and returns its length.
  std::size_t End() noexcept {
    *at_ = '\0';
    return static_cast<std::size_t>(at_ - begin_);
  }

 private:
  std::size_t Space() const noexcept { return static_cast<std::size_t>(end_ - at_); }

  char* const begin_;
  char* at_;
  char* const end_;
};

}  // namespace

const char* StampText::At(const timeval& now) noexcept {
  if (!is_formatted_ || now.tv_sec != second_) FormatSecond(now.tv_sec);
  if (!is_formatted_) return kUnknownStamp;
  text_[second_length_] = '.';
  PutMilliseconds(text_ + second_length_ + 1, now);
  text_[second_length_ + 4] = '\0';
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

std::size_t KeptHeader::At(const timeval& now, std::uint32_t thread, const char* module, char* buffer) noexcept {
  if (length_ == 0 || now.tv_sec != second_ || thread != thread_) {
    length_ =
        FormatEntryHeader(text_, sizeof text_,
                          {.stamp = stamp_.At(now), .thread = thread, .module = module, .resident_kilobytes = nullptr});
    second_ = now.tv_sec;
    thread_ = thread;
  }
  std::memcpy(buffer, text_, sizeof text_);
  if (stamp_.SecondLength() != 0) PutMilliseconds(buffer + stamp_.SecondLength() + 1, now);
  return length_;
}

// The header is not formatted with snprintf: with "%s [%08X] %-13s " an entry would take 1.5 times as long.
std::size_t FormatEntryHeader(char* buffer, std::size_t size, const EntryHeaderParts& parts) noexcept {
  if (size == 0) return 0;
  FieldWriter header(buffer, size - 1);
  header.Put(parts.stamp);
  header.Put(" [");
  header.PutHex(parts.thread);
  header.Put("] ");
  if (parts.resident_kilobytes != nullptr) {
    char memory[40];
    (void)std::snprintf(memory, sizeof memory, "%8zu %s !", *parts.resident_kilobytes, "KB");
    header.Put(memory);
  }
  header.PutPadded(parts.module, kModuleColumnChars);
  header.Put(" ");
  return header.End();
}

std::size_t ResidentKilobytes(std::int32_t pid) noexcept try {
  constexpr int kInKilobytes = 1;
  unsigned long kilobytes = 0;
  const bool is_read =
      CProcess::GetProcessMemorySpecificInfo(static_cast<unsigned>(pid), &kilobytes, "VmRSS:", kInKilobytes);
  return is_read ? kilobytes : 0;
} catch (const std::exception&) {
  return 0;  // out of memory; tracing must not throw
}

void FormatStartTime(std::time_t time, char (&text)[32]) noexcept {
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr || ::asctime_r(&local, text) == nullptr) {
    CopyText(text, "\nwww mmm dd hh:mm:ss yyyy");
  }
}

}  // namespace qx::debug
