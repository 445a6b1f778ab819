#include "tests/debug/TraceRingModel.h"

#include <cstdio>

namespace qx::test {

namespace {

const std::string kTerminator = "## TRACE-END ##\n";

std::string HeaderLine(std::string_view label, const std::string& value) {
  std::string line(label);
  line.resize(33, ' ');
  line += ": " + value;
  line.resize(78, ' ');
  return line + "|\n";
}

std::string Digits(std::size_t number) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%016zu", number);
  return digits;
}

}  // namespace

void RingModel::Create(int header_lines) {
  header_lines_ = header_lines;
  std::string head =
      HeaderLine("FilePath", "/var/log/brollan/log.app_a") + HeaderLine("FirstOpen", "Sat Jan 31 10:20:30 2026") +
      HeaderLine("LastOpen", "Sat Jan 31 10:20:30 2026") + HeaderLine("NumberOpens    (decimal)", Digits(1)) +
      HeaderLine("WrapCount      (decimal)", Digits(0)) +
      HeaderLine("RingBufferSize (decimal)", Digits(bytes_.size())) +
      HeaderLine("CurrentWritePosition (dec bytes)", Digits(0)) + std::string(78, '-') + "+\n" + std::string(383, ' ') +
      "\n";
  while (head.size() < bytes_.size()) {
    std::string block = Entry("");
    block.pop_back();
    block.resize(1023, '_');
    head += block + "\n";
  }
  bytes_ = head.substr(0, bytes_.size());
  WriteBlock();
  position_ = (position_ + 2048) / 1024 * 1024;
}

void RingModel::Reopen() {
  StoreNumber(275, ++opens_);
  wrap_start_ = 0;
  Put("### Start of work cycle. ###");
}

void RingModel::Put(const std::string& text) {
  const std::string entry = Entry(text);
  if (position_ + kTerminator.size() + entry.size() > bytes_.size()) Wrap();
  Append(entry, text);
}

void RingModel::EndInit() {
  Put("### End of initialization. ###");
  wrap_start_ = position_;
}

std::vector<std::string> RingModel::WholeTexts() const {
  std::vector<std::string> texts;
  for (const Written& written : written_) {
    if (written.is_whole) texts.push_back(written.text + "\n");
  }
  return texts;
}

std::string RingModel::Entry(const std::string& text) const {
  char header[64];
  std::snprintf(header, sizeof header, "2026-01-31 10:%02d:%02d.%03d [0A1B2C3D] App           ", now_ms_ / 60000 % 60,
                now_ms_ / 1000 % 60, now_ms_ % 1000);
  return header + text + "\n";
}

void RingModel::Append(const std::string& entry, const std::string& text) {
  Store(position_, entry);
  written_.push_back({text, position_, position_ + entry.size(), true});
  position_ += entry.size();
  Store(position_, kTerminator);
  StoreNumber(515, position_);
}

void RingModel::Store(std::size_t at, std::string_view bytes) {
  bytes_.replace(at, bytes.size(), bytes);
  for (Written& written : written_) {
    if (written.begin < at + bytes.size() && at < written.end) written.is_whole = false;
  }
}

void RingModel::StoreNumber(std::size_t at, std::size_t number) { bytes_.replace(at, 16, Digits(number)); }

void RingModel::WriteBlock() {
  position_ = 1024;
  for (int i = 0; i < header_lines_; ++i) {
    const std::string text = "header " + std::to_string(i) + std::string(wraps_ % 7, 'h');
    Append(Entry(text), text);
  }
  Append(Entry("# End of header."), "# End of header.");
}

void RingModel::Wrap() {
  Store(position_, std::string(bytes_.size() - position_, '.'));
  StoreNumber(355, ++wraps_);
  ++now_ms_;  // the entry that does not fit has its stamp already
  WriteBlock();
  position_ = wrap_start_ != 0 ? wrap_start_ : (position_ + 2048) / 1024 * 1024;
}

}  // namespace qx::test
