#include "inifile/IniFile.h"

#include <fcntl.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

#include "base/File.h"

namespace {

constexpr unsigned kTextStep = 1024;
// The size of the largest buffer for a text.
constexpr unsigned kTextSizeMax = 63 * kTextStep;

// True if the result of a read fills the buffer so far that it may have been cut.
bool MayBeCut(unsigned length, unsigned size) { return length == size - 1 || length == size - 2; }

std::unique_ptr<char[]> NewBytes(std::size_t size) { return std::unique_ptr<char[]>(new (std::nothrow) char[size]); }

std::unique_ptr<char[]> Copy(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  std::unique_ptr<char[]> copy = NewBytes(size);
  if (copy) std::memcpy(copy.get(), text, size);
  return copy;
}

// Reads a text of any length up to the limit. A text that does not fit into the first buffer is read again into the
// largest one, without steps between the two sizes, because each step would scan the file again. Every value of an
// entry fits into the first buffer; lists and defaults may be longer.
class ReadText {
 public:
  // False if the text is too long, or if memory runs out.
  [[nodiscard]] bool Read(const char* section, const char* key, const char* def, const char* path) {
    text_ = first_.data();
    length_ = CIniFile::GetPrivateProfileString(section, key, def, first_.data(), kTextStep, path);
    if (!MayBeCut(length_, kTextStep)) return true;

    rest_ = NewBytes(kTextSizeMax);
    if (!rest_) return false;
    text_ = rest_.get();
    length_ = CIniFile::GetPrivateProfileString(section, key, def, rest_.get(), kTextSizeMax, path);
    return !MayBeCut(length_, kTextSizeMax);
  }

  // The text and the NUL after it; for a list, the names with their NULs.
  [[nodiscard]] const char* Text() const { return text_; }
  [[nodiscard]] unsigned Length() const { return length_; }

 private:
  std::array<char, kTextStep> first_;
  std::unique_ptr<char[]> rest_;
  const char* text_ = nullptr;
  unsigned length_ = 0;
};

}  // namespace

CIniFile::CIniFile() { static_assert(sizeof(CIniFile) == 48, "four pointers, two sizes and a flag"); }

CIniFile::~CIniFile() { is_open_ = false; }

void CIniFile::SetFilename(const char* name) { file_name_ = Copy(name); }

const char* CIniFile::GetFileName() const { return file_name_ ? file_name_.get() : ""; }

bool CIniFile::Open(bool mustExist) {
  is_open_ = false;
  if (!file_name_) return false;
  is_open_ = !mustExist || qx::file::OpenRegular(file_name_.get(), O_RDONLY).IsOpen();
  return is_open_;
}

bool CIniFile::Open(const char* name, bool mustExist) {
  SetFilename(name);
  return Open(mustExist);
}

bool CIniFile::IsOpen() const { return is_open_; }

void CIniFile::Close() { is_open_ = false; }

unsigned CIniFile::GetNumber(const char* section, const char* key, unsigned def) {
  if (!IsUsable() || section == nullptr || key == nullptr) return def;
  std::array<char, 32> digits;
  if (GetPrivateProfileString(section, key, nullptr, digits.data(), digits.size(), file_name_.get()) == 0) return def;
  return static_cast<unsigned>(std::strtoul(digits.data(), nullptr, 0));
}

bool CIniFile::GetString(std::string& out, const char* section, const char* key, const char* def) {
  if (!IsUsable()) return false;
  ReadText read;
  if (read.Read(section, key, def, file_name_.get())) {
    out = read.Text();
    return true;
  }
  out = def != nullptr ? def : "";
  return false;
}

const char* CIniFile::GetString(const char* section, const char* key, const char* def) {
  if (!IsUsable()) return def;
  ReadText read;
  const char* kept = nullptr;
  if (read.Read(section, key, def, file_name_.get())) kept = KeepString(read.Text(), read.Length());
  if (kept != nullptr) return kept;
  if (!IsKeptString(def)) ForgetString();
  return def;
}

bool CIniFile::IsKeptString(const char* text) const {
  const std::less<const char*> before;
  const char* const begin = string_buffer_.get();
  return begin != nullptr && !before(text, begin) && before(text, begin + string_size_);
}

void CIniFile::ForgetString() {
  string_buffer_.reset();
  string_size_ = 0;
}

// Copies the text into the object's buffer, which only grows, in steps of 1024 bytes.
const char* CIniFile::KeepString(const char* text, unsigned length) {
  const unsigned needed = length + 1;
  if (needed > string_size_) {
    const unsigned size = (needed + kTextStep - 1) / kTextStep * kTextStep;
    std::unique_ptr<char[]> larger = NewBytes(size);
    if (!larger) return nullptr;
    string_buffer_ = std::move(larger);
    string_size_ = size;
  }
  std::memcpy(string_buffer_.get(), text, needed);
  return string_buffer_.get();
}

const char* CIniFile::GetEnum(const char* section) {
  enum_cursor_ = nullptr;
  if (!IsUsable()) return "";
  const std::unique_ptr<char[]> list = NewBytes(kTextSizeMax);
  if (!list) return "";
  const unsigned length = GetPrivateProfileString(section, nullptr, "", list.get(), kTextSizeMax, file_name_.get());
  if (MayBeCut(length, kTextSizeMax)) return "";

  std::unique_ptr<char[]> kept = NewBytes(length + 1);
  if (!kept) return "";
  std::memcpy(kept.get(), list.get(), length + 1);
  enum_buffer_ = std::move(kept);
  enum_size_ = length + 1;
  enum_cursor_ = enum_buffer_.get();
  return enum_cursor_;
}

// A list may contain an empty name (of an entry "=value"), so only the end of the list stops the cursor.
const char* CIniFile::GetNextEnum() {
  if (enum_cursor_ == nullptr || !is_open_) return "";
  const char* const next = enum_cursor_ + std::strlen(enum_cursor_) + 1;
  if (next < enum_buffer_.get() + enum_size_) enum_cursor_ = next;
  return enum_cursor_;
}

bool CIniFile::AppendEnum(std::vector<std::string>& names, const char* section) {
  const std::size_t before = names.size();
  for (const char* name = GetEnum(section); *name != '\0'; name = GetNextEnum()) names.emplace_back(name);
  return names.size() > before;
}

bool CIniFile::GetSections(std::vector<std::string>& names) { return AppendEnum(names, nullptr); }

bool CIniFile::GetEnums(std::vector<std::string>& names, const char* section) {
  return section != nullptr && AppendEnum(names, section);
}

bool CIniFile::SetString(const char* section, const char* key, const char* value) {
  if (!IsUsable() || section == nullptr) return false;
  return WritePrivateProfileString(section, key, value, file_name_.get());
}

bool CIniFile::SetNumber(const char* section, const char* key, unsigned number) {
  if (key == nullptr) return false;
  std::array<char, 30> digits;
  std::snprintf(digits.data(), digits.size(), "%u", number);
  return SetString(section, key, digits.data());
}

bool CIniFile::SetNumber(const char* section, const char* key, int number) {
  if (key == nullptr) return false;
  std::array<char, 30> digits;
  std::snprintf(digits.data(), digits.size(), "%d", number);
  return SetString(section, key, digits.data());
}

bool CIniFile::DeleteSection(const char* section) { return SetString(section, nullptr, nullptr); }

bool CIniFile::DeleteKey(const char* section, const char* key) { return SetString(section, key, nullptr); }

bool CIniFile::CopySection(const char* from, const char* to) {
  if (!IsUsable()) return false;
  if (from == nullptr || to == nullptr) return is_open_;
  for (const char* key = GetEnum(from); *key != '\0'; key = GetNextEnum()) {
    (void)SetString(to, key, GetString(from, key, ""));  // CopySection does not return the result of a write
  }
  return is_open_;
}

void CIniFile::Flush() {
  if (!is_open_) return;
  (void)WritePrivateProfileString(nullptr, nullptr, nullptr, file_name_.get());  // traces the warning and returns false
}
