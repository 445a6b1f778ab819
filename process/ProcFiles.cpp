#include "process/ProcFiles.h"

#include <algorithm>
#include <charconv>

namespace qx::process {

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// Removes the first word from `text` and returns it; empty if there are no more words.
std::string_view TakeWord(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(kWhiteSpace));
  text.remove_prefix(word.size());
  return word;
}

std::string_view TakeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

int ShiftOfUnitWord(std::string_view word) {
  if (word == "kB") return 10;
  if (word == "MB") return 20;
  if (word == "GB") return 30;
  return 0;
}

std::optional<unsigned long> NumberAndUnit(std::string_view text) {
  const std::string_view digits = TakeWord(text);
  unsigned long number = 0;
  if (std::from_chars(digits.data(), digits.data() + digits.size(), number).ec != std::errc()) return std::nullopt;
  return number << ShiftOfUnitWord(TakeWord(text));
}

}  // namespace

std::optional<unsigned long> BytesOnStatusLine(std::string_view status_text, std::string_view key) {
  while (!status_text.empty()) {
    std::string_view line = TakeLine(status_text);
    if (TakeWord(line) == key) return NumberAndUnit(line);
  }
  return std::nullopt;
}

unsigned long InUnit(unsigned long bytes, int unit) {
  for (; unit > 0 && bytes != 0; --unit) bytes >>= 10;
  return bytes;
}

std::optional<int> PidOfDirectoryName(std::string_view name) {
  int pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (error != std::errc() || end != name.data() + name.size() || pid <= 0) return std::nullopt;
  return pid;
}

}  // namespace qx::process
