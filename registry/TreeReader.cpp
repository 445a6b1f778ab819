#include "registry/TreeReader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "registry/RegistryNode.h"
#include "registry/RegistryValue.h"

namespace qx::registry {

namespace {

// The part of a line after its marker, NUL-terminated for strtol.
class NumberText {
 public:
  explicit NumberText(std::string_view text) {
    const std::size_t length = std::min(text.size(), kLineCharsMax);
    std::memcpy(text_.data(), text.data(), length);
    text_[length] = '\0';
  }
  [[nodiscard]] const char* Text() const { return text_.data(); }

 private:
  std::array<char, kLineCharsMax + 1> text_;
};

OwnedValue StringValue(std::int32_t type, std::string_view data) { return {type, NewText(data)}; }

// Reads only the form that a save writes: an optional minus sign and digits up to the end of the line, within 32 bits.
std::optional<std::int32_t> PlainNumber(std::string_view data) {
  std::int32_t number = 0;
  const char* end = data.data() + data.size();
  const auto [stop, error] = std::from_chars(data.data(), end, number);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

// "12abc" => 12   "4294967295" => -1   "abc" => no value
OwnedValue NumberValue(std::string_view data) {
  if (const auto plain = PlainNumber(data)) return OwnedValue(*plain);
  const NumberText digits(data);
  char* end = nullptr;
  const long number = std::strtol(digits.Text(), &end, 10);
  if (end == digits.Text()) return {};
  return OwnedValue(static_cast<std::int32_t>(number));
}

// The value of each digit as a save writes it; 0x80 for any other byte.
consteval std::array<std::uint8_t, 256> MakeDigitValues() {
  std::array<std::uint8_t, 256> values{};
  values.fill(0x80);
  for (std::uint8_t digit = 0; digit < 16; ++digit) {
    values[static_cast<unsigned char>("0123456789abcdef"[digit])] = digit;
  }
  return values;
}

constexpr std::array<std::uint8_t, 256> kDigitValues = MakeDigitValues();

// Converts numbers in the form that a save writes: two digits and a space. False if a number has another form.
//   "0a ff "  => 0a ff
bool ConvertPlainBytes(std::string_view data, char* to) {
  unsigned strange = 0;
  for (std::size_t at = 0; at < data.size(); at += 3) {
    const unsigned high = kDigitValues[static_cast<unsigned char>(data[at])];
    const unsigned low = kDigitValues[static_cast<unsigned char>(data[at + 1])];
    strange |= ((high | low) & 0x80U) | (static_cast<unsigned char>(data[at + 2]) ^ static_cast<unsigned>(' '));
    *to++ = static_cast<char>(high << 4U | low);
  }
  return strange == 0;
}

// Makes a block from hexadecimal numbers, of each the low 8 bits: "1ff 2" => ff 02 Quirk: a number may have one digit,
// and a space need not follow it ("+1+2" are two numbers). So a line can have more numbers than a third of its length.
// The block has as many bytes as there are numbers.
char* NewBlockOfNumbers(std::string_view data) {
  std::array<char, kLineCharsMax> bytes;
  std::size_t count = 0;
  const NumberText numbers(data);
  const char* at = numbers.Text();
  for (;;) {
    char* end = nullptr;
    const long number = std::strtol(at, &end, 16);
    if (end == at || count == bytes.size()) break;
    bytes[count++] = static_cast<char>(number);
    at = end;
  }
  return NewBlock({bytes.data(), count});
}

OwnedValue BinaryValue(std::string_view data) {
  if (data.size() % 3 != 0) return {REG_BINARY, NewBlockOfNumbers(data)};
  char* block = NewBlockOf(data.size() / 3);
  if (block == nullptr || ConvertPlainBytes(data, BytesIn(block))) return {REG_BINARY, block};
  delete[] block;
  return {REG_BINARY, NewBlockOfNumbers(data)};
}

// Builds keys that no other thread can reach yet. The keys are merged into the tree after all lines are read.
class TreeBuilder {
 public:
  explicit TreeBuilder(CRegistryNode& top) : current_(&top) {}

  void TakeLine(std::string_view line) {
    const std::size_t bracket = line.front() == '[' ? line.find(']') : std::string_view::npos;
    if (bracket != std::string_view::npos) return OpenKey(line.substr(1, bracket - 1));
    if (skipped_keys_ > 0) return;
    const std::size_t equals = line.find('=');
    if (equals != std::string_view::npos) TakeValue(line.substr(0, equals), line.substr(equals));
  }

  // Closes the current key. False if it was the outermost key.
  bool CloseKey() {
    if (skipped_keys_ > 0) {
      --skipped_keys_;
      return true;
    }
    current_->SortAppended();
    if (above_.empty()) return false;
    current_ = above_.back();
    above_.pop_back();
    return true;
  }

  [[nodiscard]] Reading Result() const {
    if (!has_values_) return Reading::kFailed;
    return has_skipped_lines_ ? Reading::kPart : Reading::kWhole;
  }

 private:
  // Makes the entry before the content of its key is read. Meanwhile nothing else is added to the key above, so the
  // order of the entries does not change. If memory runs out, the key is skipped with its content, so that its values
  // do not get into the key above.
  void OpenKey(std::string_view name) {
    CRegistryNode* key = skipped_keys_ == 0 ? AppendKey(name) : nullptr;
    if (key != nullptr) {
      current_ = key;
    } else {
      ++skipped_keys_;
      has_skipped_lines_ = true;
    }
  }

  CRegistryNode* AppendKey(std::string_view name) {
    auto* key = new (std::nothrow) CRegistryNode;
    OwnedValue value(REG_NODE, key);
    if (key == nullptr || !Remember(current_)) return nullptr;
    if (!current_->Append(name, value.Get())) {
      above_.pop_back();
      return nullptr;
    }
    (void)value.Release();
    return key;
  }

  void TakeValue(std::string_view name, std::string_view marked) {
    if (marked.starts_with("=s=")) return Store(name, StringValue(REG_SZ, marked.substr(3)));
    if (marked.starts_with("=es=")) return Store(name, StringValue(REG_EXPAND_SZ, marked.substr(4)));
    if (marked.starts_with("=b=")) return Store(name, BinaryValue(marked.substr(3)));
    if (!marked.starts_with("=d=")) return;
    Store(name, NumberValue(marked.substr(3)));
    has_values_ = true;  // Quirk: a number line without digits stores nothing, but the file still counts as good.
  }

  // If memory runs out, the line is skipped. The value of a number line without digits has type 0, and does not count
  // as skipped.
  void Store(std::string_view name, OwnedValue value) {
    if (!value.IsPresent() || !current_->Append(name, value.Get())) {
      if (value.Get().type != 0) has_skipped_lines_ = true;
      return;
    }
    (void)value.Release();
    has_values_ = true;
  }

  bool Remember(CRegistryNode* key) {
    try {
      above_.push_back(key);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  CRegistryNode* current_;
  std::vector<CRegistryNode*> above_;
  std::size_t skipped_keys_ = 0;  // the number of open keys for which there was no memory
  bool has_values_ = false;
  bool has_skipped_lines_ = false;
};

}  // namespace

LineReader::LineReader(ByteSource source, std::size_t window_bytes)
    : source_(std::move(source)),
      window_bytes_(std::max(window_bytes, kLineCharsMax)),
      window_(new (std::nothrow) char[window_bytes_]),
      at_end_(window_ == nullptr),
      failed_(window_ == nullptr) {}

std::optional<std::string_view> LineReader::Next() {
  for (;;) {
    const std::string_view ahead(window_.get() + begin_, std::min(end_ - begin_, kLineCharsMax));
    const std::size_t feed = ahead.find('\n');
    const bool is_whole = feed != std::string_view::npos || ahead.size() == kLineCharsMax || at_end_;
    if (!is_whole) {
      Refill();
      continue;
    }
    if (ahead.empty() || failed_) return std::nullopt;
    begin_ += feed == std::string_view::npos ? ahead.size() : feed + 1;
    const std::string_view line = ahead.substr(0, feed);
    return may_have_nul_ ? line.substr(0, line.find('\0')) : line;
  }
}

void LineReader::Refill() {
  std::memmove(window_.get(), window_.get() + begin_, end_ - begin_);
  end_ -= std::exchange(begin_, 0);
  const ssize_t got = source_(window_.get() + end_, window_bytes_ - end_);
  failed_ = got < 0;
  at_end_ = got <= 0;
  if (got <= 0) return;
  may_have_nul_ = may_have_nul_ || std::memchr(window_.get() + end_, '\0', static_cast<std::size_t>(got)) != nullptr;
  end_ += static_cast<std::size_t>(got);
}

// The end of the input closes all keys that are open. An empty line closes one key. At the outermost level it ends the
// reading, even if further lines follow.
Reading RestoreFrom(LineReader& lines, CRegistryNode& node) {
  CRegistryNode fresh;
  TreeBuilder builder(fresh);
  bool is_open = true;
  while (is_open) {
    const std::optional<std::string_view> line = lines.Next();
    if (!line) break;
    if (line->empty()) {
      is_open = builder.CloseKey();
    } else {
      builder.TakeLine(*line);
    }
  }
  while (is_open && builder.CloseKey()) continue;
  return node.Merge(fresh) && !lines.HasFailed() ? builder.Result() : Reading::kFailed;
}

}  // namespace qx::registry
