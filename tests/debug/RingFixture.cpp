#include "tests/debug/RingFixture.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "debug/RingFormat.h"

namespace qx::test {

std::string Undated(std::string bytes) {
  constexpr std::string_view kShape = "9999-99-99 99:99:99.999 [FFFFFFFF]";
  constexpr std::size_t kBracket = 24;
  for (std::size_t at = bytes.find('['); at != std::string::npos; at = bytes.find('[', at + 1)) {
    if (at < kBracket || !StartsWithShape(std::string_view(bytes).substr(at - kBracket), kShape)) continue;
    bytes.replace(at - kBracket, kUndatedStamp.size(), kUndatedStamp);
  }
  return bytes;
}

std::string UndatedEntry(std::string_view text) {
  return std::string(kUndatedStamp) + " QxTrace       " + std::string(text);
}

std::string RingDigits(std::size_t number) {
  const std::string text = std::to_string(number);
  return std::string(16 - text.size(), '0') + text;
}

std::size_t EndOfNewest(std::string_view ring) {
  const std::size_t position = qx::debug::ReadRingNumber(ring.substr(515, 16)).value_or(0);
  if (position < 1024 || position > ring.size()) return 0;
  if (ring.substr(position, kTerminator.size()) == kTerminator) return position;
  if (!StartsWithShape(ring.substr(position), "9999-99-99 99:99:99.999 [FFFFFFFF]")) return 0;
  const std::size_t terminator = ring.find(kTerminator, position);
  return terminator < ring.find("\n2", position) ? terminator : 0;
}

RingSetup::RingSetup() {
  SetEnv("QX_LOG_FILE_MAX_SIZE", "-1");
  if (!InitAtLevel(1)) throw std::runtime_error("no trace");
}

std::string RingSetup::HeaderBlock() {
  const std::size_t before = Log().size();
  Trace().WriteLogHeader(CDebug::kTargetLogFile);
  return Undated(Log().substr(before));
}

std::string RingSetup::Value(std::size_t line) const {
  std::ifstream file(RingPath(), std::ios::binary);
  char value[43] = {};
  file.seekg(static_cast<std::streamoff>(80 * line + 35));
  if (!file.read(value, sizeof value)) throw std::runtime_error("cannot read " + RingPath());
  const std::string text(value, sizeof value);
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

void RingSetup::Patch(std::size_t offset, std::string_view bytes) {
  std::fstream file(RingPath(), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::runtime_error("cannot patch " + RingPath());
}

void RingSetup::FillUpTo(std::size_t rest) {
  constexpr std::size_t kOverhead = kHeaderBytes + 1;
  const std::size_t size = Number(5);
  const std::size_t most = size / 10;
  for (std::size_t left = size - Position() - rest; left > 0; left = size - Position() - rest) {
    const std::size_t bytes = left <= most ? left : left - most < kOverhead ? most - kOverhead : most;
    if (bytes < kOverhead) throw std::runtime_error("too little space to fill");
    Trace().Print(1, "%s", std::string(bytes - kOverhead, 'f').c_str());
  }
}

RingModel::RingModel(const std::string& path, std::size_t size, const std::string& start_time) : bytes_(size, '_') {
  const char* const labels[] = {"FilePath",
                                "FirstOpen",
                                "LastOpen",
                                "NumberOpens    (decimal)",
                                "WrapCount      (decimal)",
                                "RingBufferSize (decimal)",
                                "CurrentWritePosition (dec bytes)"};
  const std::string values[] = {path,          start_time,       start_time,   Padded(1, 16),
                                Padded(0, 16), Padded(size, 16), Padded(0, 16)};
  for (std::size_t line = 0; line < 7; ++line) {
    Put(80 * line, std::string(78, ' ') + "|\n");
    Put(80 * line, labels[line]);
    Put(80 * line + 33, ": " + values[line].substr(0, 43));
  }
  Put(560, std::string(78, '-') + "+\n" + std::string(383, ' ') + "\n");
  for (std::size_t block = 1024; block < size; block += 1024) {
    Put(block, UndatedEntry(""));
    bytes_[block + 1023] = '\n';
  }
}

void RingModel::WriteNewFile(const std::string& header_block) {
  PutHeaderBlock(header_block);
  position_ = std::min((position_ + 2048) / 1024 * 1024, bytes_.size());
  StartCycle();
}

void RingModel::Reopen(const std::string& start_time) {
  Put(195, start_time);
  PutNumber(3, ++opens_);
  wrap_start_ = 0;
}

void RingModel::Entry(const std::string& entry, const std::string& header_block) {
  if (position_ + kTerminator.size() + entry.size() > bytes_.size()) {
    Put(position_, std::string(bytes_.size() - position_, '.'));
    PutNumber(4, ++wraps_);
    position_ = 1024;
    PutHeaderBlock(header_block);
    position_ = wrap_start_ != 0 ? wrap_start_ : (position_ + 2048) / 1024 * 1024;
  }
  Put(position_, entry);
  position_ += entry.size();
  Put(position_, kTerminator);
  PutNumber(6, position_);
}

void RingModel::PutHeaderBlock(const std::string& header_block) {
  Put(position_, header_block);
  position_ += header_block.size();
  Put(position_, kTerminator);
  PutNumber(6, position_);
}

std::string RingModel::Padded(std::size_t number, std::size_t digits) {
  const std::string text = std::to_string(number);
  return std::string(digits - text.size(), '0') + text;
}

}  // namespace qx::test
