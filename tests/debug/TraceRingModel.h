// A plain writer of ring files for tests, which uses nothing of the facility. It holds the bytes in a string, and each
// entry until one of its bytes is overwritten.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

class RingModel {
 public:
  explicit RingModel(std::size_t size) : bytes_(size, '\0') {}

  // Makes a new file whose header block has `header_lines` lines and its end mark.
  void Create(int header_lines);
  // Begins another run, which continues at the write position.
  void Reopen();
  void Put(const std::string& text);
  // Keeps everything that was written so far across wraps.
  void EndInit();
  void Advance(int milliseconds) { now_ms_ += milliseconds; }

  const std::string& Bytes() const { return bytes_; }
  unsigned Wraps() const { return wraps_; }
  // The texts of the entries that are still whole, in the order in which they were written.
  std::vector<std::string> WholeTexts() const;

 private:
  struct Written {
    std::string text;
    std::size_t begin;
    std::size_t end;
    bool is_whole;
  };

  std::string Entry(const std::string& text) const;
  void Append(const std::string& entry, const std::string& text);
  void Store(std::size_t at, std::string_view bytes);
  void StoreNumber(std::size_t at, std::size_t number);
  void WriteBlock();
  void Wrap();

  std::string bytes_;
  std::vector<Written> written_;
  std::size_t position_ = 1024;
  std::size_t wrap_start_ = 0;
  unsigned wraps_ = 0;
  unsigned opens_ = 1;
  int header_lines_ = 0;
  int now_ms_ = 0;
};

}  // namespace qx::test
