// WritePrivateProfileString and WriteLines: find the region of an edit in one scan, write the edit, and move the rest
// of the file.
//
// Quirk: the writer skips no white space at the beginning of a line, so it does not find an indented header or key,
// which the reader finds. It drops the last character of every line, where it expects the line feed. So a character is
// missing in a last line without line feed, and in each piece of a long line.
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "base/File.h"
#include "debug/Debug.h"
#include "inifile/IniFile.h"
#include "inifile/LineScanner.h"
#include "inifile/ProfileSyntax.h"

namespace qx::inifile {

namespace {

constexpr mode_t kNewFileMode = 0644;

// The requested edit. If `key` is null, the section is removed; if `value` is null, the key.
struct Edit {
  const char* section;
  const char* key;
  const char* value;
  const char* path;

  [[nodiscard]] bool DeletesSection() const { return key == nullptr; }
  [[nodiscard]] bool SetsValue() const { return key != nullptr && value != nullptr; }
};

struct CloseStream {
  void operator()(FILE* stream) const noexcept { (void)std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

bool Closed(Stream stream) { return std::fclose(stream.release()) == 0; }

enum class PlaceKind { kEntry, kNextHeader, kEndOfFile, kUnreadable };

// The state at the end of the scan. The region of a line begins with the empty lines and comment lines directly above
// it.
struct Place {
  PlaceKind kind = PlaceKind::kEndOfFile;
  bool has_section = false;
  std::uint64_t section_begin = 0;  // where the region of the section's header begins
  unsigned section_lines = 0;       // lines with content since that header, with the one at `begin`
  std::uint64_t begin = 0;
  std::uint64_t end = 0;  // after the line at which the scan ended
};

std::string_view WithoutLastCharacter(std::string_view line) {
  return line.substr(0, line.empty() ? 0 : line.size() - 1);
}

bool IsEmptyOrComment(std::string_view line) { return line.empty() || line.front() == ';'; }

// Reads lines up to the first line with content, and sets the region in `place`. False at the end of the file.
bool NextRegion(LineScanner& lines, Place& place, std::string_view& line) {
  place.begin = lines.Position();
  bool is_found = false;
  while (!is_found && lines.Next(line)) {
    line = WithoutLastCharacter(line);
    is_found = !IsEmptyOrComment(line);
  }
  place.end = lines.Position();
  return is_found;
}

// True if the line is an entry of `key`. White space before the key counts as a part of the key.
bool IsEntryOf(std::string_view line, std::string_view key) {
  const std::size_t equals = line.find('=');
  return equals != std::string_view::npos && WithoutTrailing(line.substr(0, equals), " \t") == key;
}

Place FindPlace(LineScanner& lines, const Edit& edit) {
  Place place;
  std::string_view line;
  while (NextRegion(lines, place, line)) {
    if (IsHeader(line)) {
      if (place.has_section) {
        place.kind = PlaceKind::kNextHeader;
        return place;
      }
      if (!IsHeaderOf(line, edit.section)) continue;
      place.has_section = true;
      place.section_begin = place.begin;
    } else if (place.has_section) {
      ++place.section_lines;
      if (edit.key == nullptr || !IsEntryOf(line, edit.key)) continue;
      place.kind = PlaceKind::kEntry;
      return place;
    }
  }
  return place;
}

Place FindPlace(const file::Descriptor& file, const Edit& edit) {
  std::array<char, LineScanner::kWindowBytes> window;
  LineScanner lines(file.Number(), window);
  Place place = FindPlace(lines, edit);
  // After a failed read, the section may be in the part that was not read. To append it would make a second section.
  if (lines.HasFailed()) place.kind = PlaceKind::kUnreadable;
  return place;
}

bool WriteAll(FILE* stream, std::string_view text) {
  return text.empty() || std::fwrite(text.data(), 1, text.size(), stream) == text.size();
}

std::string FormatEntry(const char* key, const char* value) {
  return std::string(key).append("=").append(value).append("\n");
}

// The file's bytes from `offset` to its end at `size`; null when they cannot be read whole.
std::unique_ptr<char[]> ReadTail(FILE* stream, std::uint64_t offset, std::uint64_t size) {
  const std::size_t length = static_cast<std::size_t>(size - offset);
  std::unique_ptr<char[]> tail(new (std::nothrow) char[length + 1]);
  if (!tail || fseeko(stream, static_cast<off_t>(offset), SEEK_SET) != 0) return nullptr;
  if (std::fread(tail.get(), 1, length, stream) != length) return nullptr;
  return tail;
}

// Removes the bytes that a failed write left after `old_end`. A failure is ignored, because the failed write is
// reported.
void CutBack(int descriptor, off_t old_end) { (void)file::Truncate(descriptor, old_end); }

// Reserves the space that an edit needs before it overwrites anything, so that a full disk leaves the file unchanged.
// False only if there is too little space. If the reservation fails for another reason, the writes will show an error.
bool ReserveSpace(FILE* stream, std::uint64_t old_size, std::uint64_t new_size) {
  if (new_size <= old_size) return true;
  const auto old_end = static_cast<off_t>(old_size);
  const int error = posix_fallocate(fileno(stream), old_end, static_cast<off_t>(new_size - old_size));
  if (error != ENOSPC && error != EFBIG && error != EDQUOT) return true;
  CutBack(fileno(stream), old_end);
  return false;
}

bool TruncateHere(FILE* stream) {
  if (std::fflush(stream) != 0) return false;
  const off_t end = ftello(stream);
  return end >= 0 && file::Truncate(fileno(stream), end) == 0;
}

// Replaces the bytes from `begin` to `end` by `text`.
bool Splice(FILE* stream, std::uint64_t begin, std::uint64_t end, std::string_view text) {
  struct stat status;
  if (file::StatusOf(fileno(stream), status) != 0) return false;
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (begin > end || end > size) return false;

  const std::unique_ptr<char[]> tail = ReadTail(stream, end, size);
  if (!tail) return false;
  const std::string_view kept(tail.get(), static_cast<std::size_t>(size - end));
  if (!ReserveSpace(stream, size, begin + text.size() + kept.size())) return false;
  if (fseeko(stream, static_cast<off_t>(begin), SEEK_SET) != 0) return false;
  return WriteAll(stream, text) && WriteAll(stream, kept) && TruncateHere(stream);
}

// Calls WriteLines. Its offsets have 32 bits, so an edit after 4 GiB is refused.
bool WriteRegion(FILE* stream, std::uint64_t from, std::uint64_t to, const Edit& edit, bool new_line_first) {
  if (to > std::numeric_limits<unsigned>::max()) return false;
  return CIniFile::WriteLines(stream, static_cast<unsigned>(from), static_cast<unsigned>(to), edit.key, edit.value,
                              new_line_first);
}

// Quirk: if the entry is the first line of its section, a line feed is written before it. So the empty line that the
// writer makes after a header stays, or is added. If the entry is deleted, this line stays as well.
bool EditPlace(FILE* stream, const Place& place, const Edit& edit) {
  if (place.kind == PlaceKind::kEntry) {
    return WriteRegion(stream, place.begin, place.end, edit, place.section_lines < 2);
  }
  if (edit.DeletesSection()) {
    const std::uint64_t end = place.kind == PlaceKind::kEndOfFile ? place.end : place.begin;
    return WriteRegion(stream, place.section_begin, end, edit, false);
  }
  return WriteRegion(stream, place.begin, place.begin, edit, false);
}

bool EditInPlace(file::Descriptor file, const Place& place, const Edit& edit) {
  Stream stream(fdopen(file.Number(), "r+"));
  if (!stream) return false;
  (void)file.Release();  // the stream closes it
  const bool is_edited = EditPlace(stream.get(), place, edit);
  const bool is_closed = Closed(std::move(stream));
  const bool result = is_edited && is_closed;
  QX_TRACE(4, "WritePrivateProfileString rc=0x%04x\n", static_cast<unsigned>(result));
  return result;
}

// Appends the text. If the append fails half-way, the part is removed: otherwise the next line would be appended to it.
bool AppendText(file::Descriptor file, std::string_view text) {
  struct stat before;
  if (file::StatusOf(file.Number(), before) != 0) return false;
  if (!file::Write(file.Number(), text).Failed()) return file.Close() == 0;
  CutBack(file.Number(), before.st_size);
  return false;
}

void TraceAppendError(const Edit& edit) {
  QX_TRACE(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n", edit.path);
}

// Quirk: no line feed is added to a last line without one, so an entry that is appended without a header becomes part
// of this line.
bool Append(const Edit& edit, bool with_header, bool is_new) {
  const int flags = O_WRONLY | O_APPEND | (is_new ? O_CREAT : 0);
  file::Descriptor file = file::OpenRegular(edit.path, flags, kNewFileMode);
  if (!file.IsOpen()) {
    TraceAppendError(edit);
    return false;
  }
  if (is_new) (void)fchmod(file.Number(), kNewFileMode);  // the umask must not matter; errors are ignored
  std::string text;
  if (with_header) text.append("\n[").append(edit.section).append("]\n\n");
  text.append(FormatEntry(edit.key, edit.value));
  return AppendText(std::move(file), text);
}

bool WriteToUnopenable(const Edit& edit, int error) {
  const bool is_missing = error == ENOENT || error == ENOTDIR;
  if (is_missing) return !edit.SetsValue() || Append(edit, true, true);
  TraceAppendError(edit);
  return false;
}

bool Write(const Edit& edit) {
  file::Descriptor file = file::OpenRegular(edit.path, O_RDWR);
  const int error = errno;
  if (!file.IsOpen()) return WriteToUnopenable(edit, error);

  const Place place = FindPlace(file, edit);
  switch (place.kind) {
    case PlaceKind::kEntry:
      return EditInPlace(std::move(file), place, edit);
    case PlaceKind::kNextHeader:
      if (edit.DeletesSection() || edit.SetsValue()) return EditInPlace(std::move(file), place, edit);
      return false;
    case PlaceKind::kUnreadable:
      return false;
    case PlaceKind::kEndOfFile:
      break;
  }
  if (edit.SetsValue()) return Append(edit, !place.has_section, false);
  return edit.DeletesSection() && place.has_section && EditInPlace(std::move(file), place, edit);
}

}  // namespace

}  // namespace qx::inifile

bool CIniFile::WritePrivateProfileString(const char* section, const char* key, const char* value, const char* path) {
  if (section == nullptr) {
    QX_TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
    return false;
  }
  if (path == nullptr) {
    QX_TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to FileName\n");
    return false;
  }
  QX_TRACE(4, "WritePrivateProfileString(%s, %s, %s, %s)\n", section, key != nullptr ? key : "<nil>",
           value != nullptr ? value : "<nil>", path);
  return qx::inifile::Write({.section = section, .key = key, .value = value, .path = path});
}

bool CIniFile::WriteLines(FILE* file, unsigned from, unsigned to, const char* key, const char* value,
                          bool newlineFirst) {
  if (file == nullptr) return false;
  std::string text(newlineFirst ? 1 : 0, '\n');
  if (key != nullptr && value != nullptr) text.append(qx::inifile::FormatEntry(key, value));
  return qx::inifile::Splice(file, from, to, text);
}
