// GetPrivateProfileString: opens the file once, reads it once, and allocates nothing.
#include <fcntl.h>

#include <array>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/File.h"
#include "debug/Debug.h"
#include "inifile/IniFile.h"
#include "inifile/LineScanner.h"
#include "inifile/ProfileSyntax.h"

namespace qx::inifile {

namespace {

// The request of a read. If section or key is null, a list is requested.
struct Query {
  const char* section;
  const char* key;

  [[nodiscard]] bool IsList() const { return section == nullptr || key == nullptr; }
};

// The caller's buffer, of at least two bytes. If a text was cut, count_ is larger than the buffer.
class Result {
 public:
  Result(char* buf, std::size_t size) : buf_(buf), size_(size) {}

  [[nodiscard]] bool HasSpace() const { return count_ < size_ - 2; }
  [[nodiscard]] bool IsEmpty() const { return count_ == 0; }

  void AppendName(std::string_view name) {
    Copy(name, size_ - 1 - count_);
    count_ += name.size() + 1;
  }

  void SetValue(std::string_view value) {
    Copy(value, size_ - 1);
    count_ = value.size();
  }

  // Ends the text, which is not empty, and returns its length.
  //   value "abcdef", size 4              => "abc", 3
  //   names "ab" and "cd", size 16        => "ab\0cd\0\0", 6
  //   names "ab" and "cd", size 6         => "ab\0c\0\0", 4 = size - 2
  unsigned Finish(bool is_list) {
    if (count_ >= size_) {
      buf_[size_ - 1] = '\0';
      count_ = is_list ? size_ - 2 : size_ - 1;
    }
    buf_[count_] = '\0';
    return static_cast<unsigned>(count_);
  }

 private:
  // Copies at most `size_max` bytes and a NUL after them; there is always space for the NUL. The buffer's last byte
  // also becomes NUL, even after a short text.
  void Copy(std::string_view text, std::size_t size_max) {
    const std::size_t length = text.copy(buf_ + count_, size_max);
    buf_[count_ + length] = '\0';
    buf_[size_ - 1] = '\0';
  }

  char* buf_;
  std::size_t size_;
  std::size_t count_ = 0;
};

// "[Sec] text" => "Sec"; nothing when there is no "]".
std::optional<std::string_view> NameInHeader(std::string_view line) {
  const std::size_t end = line.find(']');
  if (end == std::string_view::npos) return std::nullopt;
  return line.substr(1, end - 1);
}

// True for a plain line that does not begin with `key`, and so cannot be an entry of this key.
//   "name=x", "key" => yes     "keys=x", "key" => no, although it is not an entry of "key"
bool IsOtherEntry(std::string_view line, std::string_view key) { return IsPlainText(line) && !line.starts_with(key); }

// Handles a line of the section. False if the search ends with it.
bool TakeEntry(std::string_view line, const Query& query, Result& result) {
  const std::optional<Entry> entry = ParseEntry(line);
  if (!entry) return true;
  if (query.key == nullptr) {
    result.AppendName(entry->key);
    return true;
  }
  if (entry->key != query.key) return true;
  result.SetValue(entry->value);
  return false;
}

void CollectSections(LineScanner& lines, Result& result) {
  std::string_view line;
  while (result.HasSpace() && lines.Next(line)) {
    line = WithoutLeadingWhiteSpace(line);
    if (!IsHeader(line)) continue;
    if (const auto name = NameInHeader(WithoutComment(line))) result.AppendName(*name);
  }
}

// Most lines of a large file are skipped after a check of a few characters. Within the section, the last character of
// the requested key is checked first, because keys of one section often differ only there. A list uses every line of
// its section, as if the key were empty.
void SkipOtherLines(LineScanner& lines, bool is_inside, std::string_view key) {
  if (!is_inside) return lines.SkipLines({.column = 0, .byte = '['}, IsPlainText);
  if (key.empty()) return;
  lines.SkipLines({.column = key.size() - 1, .byte = key.back()},
                  [key](std::string_view line) { return IsOtherEntry(line, key); });
}

// Only the first section with the name is read: the next header, whatever its name, ends the search.
void SearchSection(LineScanner& lines, const Query& query, Result& result) {
  const std::string_view section = query.section;
  const std::string_view key = query.key != nullptr ? query.key : "";
  bool is_inside = false;
  while (result.HasSpace()) {
    SkipOtherLines(lines, is_inside, key);
    std::string_view line;
    if (!lines.Next(line)) return;
    line = WithoutLeadingWhiteSpace(line);
    if (IsHeader(line)) {
      if (is_inside) return;
      is_inside = IsHeaderOf(WithoutComment(line), section);
    } else if (is_inside && !TakeEntry(WithoutComment(line), query, result)) {
      return;
    }
  }
}

void Search(const file::Descriptor& file, const Query& query, Result& result) {
  std::array<char, LineScanner::kWindowBytes> window;
  LineScanner lines(file.Number(), window);
  if (query.section == nullptr) {
    CollectSections(lines, result);
  } else {
    SearchSection(lines, query, result);
  }
}

unsigned DeliverDefault(const char* def, char* buf, std::size_t size) {
  if (def == nullptr) return 0;
  const std::size_t length = strnlen(def, size - 1);
  std::memcpy(buf, def, length);
  buf[length] = '\0';
  buf[size - 1] = '\0';
  return static_cast<unsigned>(length);
}

unsigned Read(const Query& query, const char* def, char* buf, std::size_t size, const char* path) {
  Result result(buf, size);
  if (const file::Descriptor file = file::OpenRegular(path, O_RDONLY); file.IsOpen()) {
    Search(file, query, result);
  } else {
    QX_TRACE(4, "GetPrivateProfileString: Cannot open %s\n", path);
  }
  if (!result.IsEmpty()) return result.Finish(query.IsList());
  return query.IsList() ? 0 : DeliverDefault(def, buf, size);
}

}  // namespace

}  // namespace qx::inifile

unsigned CIniFile::GetPrivateProfileString(const char* section, const char* key, const char* def, char* buf,
                                           unsigned size, const char* path) {
  if (buf == nullptr || path == nullptr || size == 0) return 0;
  buf[0] = '\0';
  if (size == 1) return 0;  // size - 2 would wrap
  return qx::inifile::Read({.section = section, .key = key}, def, buf, size, path);
}
