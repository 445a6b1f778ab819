// Helpers for the tests of the ring file: a facility with a ring of any size, the file's bytes with marks for varying
// parts, and a plain model of the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tests/debug/TraceFixture.h"

namespace qx::test {

constexpr std::string_view kTerminator = "## TRACE-END ##\n";
// The stamp and thread of every entry in Undated texts: each digit is "\1".
constexpr std::string_view kUndatedStamp = "\1\1\1\1-\1\1-\1\1 \1\1:\1\1:\1\1.\1\1\1 [\1\1\1\1\1\1\1\1]";

// The bytes with kUndatedStamp in place of every entry's stamp and thread.
std::string Undated(std::string bytes);

// The entry of TraceSetup's application, as Undated shows it.
std::string UndatedEntry(std::string_view text);

// "0000000000001024"
std::string RingDigits(std::size_t number);

// The end of a ring's newest entry as readers find it: the write position, or the end of the one entry that was
// completed there. 0 if neither exists.
std::size_t EndOfNewest(std::string_view ring);

// A facility at level 1 whose log never wraps and whose ring is next to it.
class RingSetup : public TraceSetup {
 public:
  RingSetup();

  std::string RingPath() const { return LogDir().File("log.qxtrace_a"); }
  bool OpenRing(std::uint32_t size) { return Trace().InitRingBuffer(RingPath().c_str(), size); }
  // Starts the facility again, as another process would, and opens the ring.
  bool Restart(std::uint32_t size) { return Init() && OpenRing(size); }

  std::string Ring() const { return ReadFile(RingPath()); }
  // The header block as an entry writer would write it into the ring now.
  std::string HeaderBlock();

  // The value of a header line without the blanks after it, and some of these values as numbers.
  std::string Value(std::size_t line) const;
  std::size_t Number(std::size_t line) const { return std::stoul(Value(line)); }
  std::size_t Opens() const { return Number(3); }
  std::size_t Wraps() const { return Number(4); }
  std::size_t Position() const { return Number(6); }
  void Patch(std::size_t offset, std::string_view bytes);

  // Traces texts until exactly `rest` bytes remain after the write position. Now there must be at least 50 more bytes.
  void FillUpTo(std::size_t rest);
};

// The ring file of a slow, plain writer: its Undated bytes in a string.
class RingModel {
 public:
  RingModel(const std::string& path, std::size_t size, const std::string& start_time);

  void WriteNewFile(const std::string& header_block);
  void Reopen(const std::string& start_time);
  void StartCycle() { Entry(UndatedEntry("### Start of work cycle. (" + Padded(opens_, 8) + ") ###\n"), ""); }
  // Appends `entry`. If the entry begins a cycle, `header_block` is written before it.
  void Entry(const std::string& entry, const std::string& header_block);
  void MarkInitEnd() { wrap_start_ = position_; }
  std::size_t FreeBytes() const { return bytes_.size() - position_; }
  const std::string& Bytes() const { return bytes_; }

 private:
  static std::string Padded(std::size_t number, std::size_t digits);
  void Put(std::size_t offset, std::string_view text) { bytes_.replace(offset, text.size(), text); }
  void PutNumber(std::size_t line, std::size_t number) { Put(80 * line + 35, Padded(number, 16)); }
  void PutHeaderBlock(const std::string& header_block);

  std::string bytes_;
  std::size_t position_ = 1024;
  std::size_t wrap_start_ = 0;
  std::size_t opens_ = 1;
  std::size_t wraps_ = 0;
};

}  // namespace qx::test
