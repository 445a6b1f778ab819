#include "inifile/tools/ProfileText.h"

#include <algorithm>
#include <set>

#include "inifile/IniFile.h"
#include "inifile/ProfileSyntax.h"

namespace qx::inifile {

namespace {

// "[Sec] text" => "Sec"
void TakeHeader(std::string_view text, ProfileLine& line) {
  line.kind = LineKind::kHeader;
  const std::size_t bracket = text.find(']');
  line.has_name = bracket != std::string_view::npos;
  if (line.has_name) line.name = text.substr(1, bracket - 1);
}

// Sets the fields of an entry; `text` begins at `offset` of the file.
void TakeEntry(std::string_view text, std::size_t offset, std::size_t equals, ProfileLine& line) {
  line.kind = LineKind::kEntry;
  line.key = WithoutTrailing(text.substr(0, equals), kWhiteSpace);
  line.value = WithoutLeadingWhiteSpace(text.substr(equals + 1));
  line.equals = offset + equals;
  line.value_begin = offset + text.size() - line.value.size();
}

ProfileLine ParseLine(std::string_view whole, std::size_t begin, std::size_t end) {
  ProfileLine line = {.begin = begin, .end = end, .name = {}, .key = {}, .value = {}};
  std::string_view text = whole.substr(begin, end - begin);
  text = WithoutLeadingWhiteSpace(text.substr(0, text.find('\n')));
  const auto offset = static_cast<std::size_t>(text.data() - whole.data());
  if (text.empty()) {
    line.kind = LineKind::kEmpty;
    return line;
  }
  const bool is_header = IsHeader(text);
  const bool is_comment = text.front() == ';';
  text = WithoutTrailing(text.substr(0, text.find(';')), kWhiteSpace);
  if (const std::size_t equals = text.find('='); is_header) {
    TakeHeader(text, line);
  } else if (is_comment) {
    line.kind = LineKind::kComment;
  } else if (equals != std::string_view::npos) {
    TakeEntry(text, offset, equals, line);
  }
  return line;
}

std::vector<ProfileEntry> ReadEntries(const std::string& path, const std::string& section) {
  std::vector<ProfileEntry> entries;
  std::map<std::string, std::string> values;
  for (const std::string& key : NamesIn(ReadWhole(path, section.c_str(), nullptr))) {
    const auto [value, is_new] = values.try_emplace(key);
    if (is_new) value->second = ReadWhole(path, section.c_str(), key.c_str());
    entries.push_back({key, value->second});
  }
  return entries;
}

}  // namespace

std::string ReadWhole(const std::string& path, const char* section, const char* key) {
  std::string buffer(4096, '\0');
  for (;;) {
    const auto size = static_cast<unsigned>(buffer.size());
    const unsigned length = CIniFile::GetPrivateProfileString(section, key, "", buffer.data(), size, path.c_str());
    if (length + 2 < size) {
      buffer.resize(length);
      return buffer;
    }
    buffer.assign(buffer.size() * 2, '\0');
  }
}

std::vector<std::string> NamesIn(const std::string& list) {
  std::vector<std::string> names;
  for (std::size_t at = 0; at < list.size();) {
    const std::size_t end = std::min(list.find('\0', at), list.size());
    names.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  return names;
}

std::vector<ProfileLine> LinesOf(std::string_view text) {
  std::vector<ProfileLine> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t feed = text.find('\n', begin);
    const std::size_t end = feed == std::string_view::npos ? text.size() : feed + 1;
    lines.push_back(ParseLine(text, begin, end));
    begin = end;
  }
  return lines;
}

ProfileContent ContentOf(std::string_view text) {
  ProfileContent content;
  std::vector<ProfileEntry>* entries = nullptr;
  std::map<std::string_view, std::string_view> values;  // of the section of `entries`
  for (const ProfileLine& line : LinesOf(text)) {
    if (line.kind == LineKind::kHeader) {
      entries = nullptr;
      if (!line.has_name) continue;
      content.sections.emplace_back(line.name);
      const auto [place, is_new] = content.entries.try_emplace(std::string(line.name));
      if (is_new) entries = &place->second;
      values.clear();
    } else if (line.kind == LineKind::kEntry && entries != nullptr) {
      const auto value = values.try_emplace(line.key, line.value).first;
      entries->push_back({std::string(line.key), std::string(value->second)});
    }
  }
  return content;
}

ProfileContent ReadThroughClass(const std::string& path) {
  ProfileContent content;
  content.sections = NamesIn(ReadWhole(path, nullptr, nullptr));
  const std::set<std::string> names(content.sections.begin(), content.sections.end());
  for (const std::string& name : names) content.entries.emplace(name, ReadEntries(path, name));
  return content;
}

}  // namespace qx::inifile
