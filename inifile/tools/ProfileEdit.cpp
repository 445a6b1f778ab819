#include "inifile/tools/ProfileEdit.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <utility>

#include "base/File.h"
#include "inifile/IniFile.h"
#include "inifile/ProfileSyntax.h"

namespace qx::inifile {

namespace {

// The size of the longest list that GetEnum and similar calls return: names with their NULs. A longer list counts as
// empty.
constexpr std::size_t kListCharsMax = 64509;

bool Holds(std::string_view text, char c) { return text.find(c) != std::string_view::npos; }

// --- what the syntax cannot express

// The reason, or empty.
std::string WhyNotAnywhere(std::string_view text, const std::string& what) {
  if (Holds(text, '\0')) return what + " holds a NUL";
  if (Holds(text, '\n')) return what + " holds a line feed";
  if (Holds(text, ';')) return what + " has a \";\", which begins a comment anywhere";
  return {};
}

bool HasBlankEnd(std::string_view text) {
  return WithoutLeadingWhiteSpace(text).size() != text.size() ||
         WithoutTrailing(text, kWhiteSpace).size() != text.size();
}

std::string WhyNotSection(std::string_view section) {
  if (section.empty()) return "a section needs a name: lists end at an empty one";
  if (Holds(section, ']')) return "the section's name ends at its first \"]\"";
  return WhyNotAnywhere(section, "the section's name");
}

std::string WhyNotKey(std::string_view key) {
  if (key.empty()) return "an entry needs a key: lists end at an empty one";
  if (Holds(key, '=')) return "the key ends at its first \"=\"";
  if (key.starts_with('[')) return "a key that begins with \"[\" is a section's header";
  if (HasBlankEnd(key)) return "blanks at the ends of a key are not read";
  return WhyNotAnywhere(key, "the key");
}

std::string WhyNotValue(std::string_view value) {
  if (HasBlankEnd(value)) return "blanks at the ends of a value are not read";
  return WhyNotAnywhere(value, "the value");
}

std::string WhyNotRequest(const ProfileRequest& request) {
  std::string reason = WhyNotSection(request.section);
  if (request.kind != ProfileRequest::Kind::kSet) return {};  // a deletion does not find a name that no file can have
  for (const ProfileEntry& entry : request.entries) {
    if (reason.empty()) reason = WhyNotKey(entry.key);
    if (reason.empty()) reason = WhyNotValue(entry.value);
  }
  return reason;
}

// Why readers would not read the lines of the text as they are, or empty.
std::string WhyNotText(std::string_view text) {
  if (Holds(text, '\0')) return "the file holds a NUL, which hides the rest of its line";
  std::size_t number = 1;
  for (std::size_t begin = 0; begin < text.size(); ++number) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    if (end - begin > kLineCharsMax) {
      return "line " + std::to_string(number) + " has " + std::to_string(end - begin) +
             " characters, and readers take at most 1023 for one line";
    }
    begin = end + 1;
  }
  return {};
}

std::size_t ListChars(const std::vector<std::string>& names) {
  std::size_t chars = 0;
  for (const std::string& name : names) chars += name.size() + 1;
  return chars;
}

std::size_t ListChars(const ProfileContent& content, const std::string& section) {
  const auto found = content.entries.find(section);
  std::size_t chars = 0;
  if (found == content.entries.end()) return 0;
  for (const ProfileEntry& entry : found->second) chars += entry.key.size() + 1;
  return chars;
}

std::string WhyNotLists(const ProfileContent& before, const ProfileContent& after, const std::string& section) {
  const std::string tail = " would be longer than the 64,509 characters that programs can list";
  const auto outgrows = [](std::size_t old, std::size_t now) { return now > kListCharsMax && now > old; };
  if (outgrows(ListChars(before.sections), ListChars(after.sections))) return "the list of sections" + tail;
  if (outgrows(ListChars(before, section), ListChars(after, section))) return "the list of the section's keys" + tail;
  return {};
}

// --- planning

// Builds the plan, and the text after each step, which CIniFile will then produce.
class Planner {
 public:
  Planner(const std::string& text, const ProfileRequest& request) : request_(request) { plan_.text = text; }

  ProfilePlan Run(const std::string& before) {
    if (!Refuse(WhyNotText(before)) && !Refuse(WhyNotRequest(request_))) {
      plan_.completes_last_line = !before.empty() && before.back() != '\n';
      if (plan_.completes_last_line) plan_.text += '\n';
      Plan();
    }
    if (plan_.state == ProfileState::kDone) {
      (void)(Refuse(WhyNotText(plan_.text)) ||
             Refuse(WhyNotLists(ContentOf(before), ContentOf(plan_.text), request_.section)));
    }
    return std::move(plan_);
  }

 private:
  bool Refuse(std::string reason) {
    if (reason.empty()) return false;
    plan_.state = ProfileState::kRefused;
    plan_.reason = std::move(reason);
    return true;
  }

  void Plan() {
    switch (request_.kind) {
      case ProfileRequest::Kind::kSet:
        for (const ProfileEntry& entry : request_.entries) Set(entry);
        return;
      case ProfileRequest::Kind::kDeleteKey:
        return DeleteKey();
      case ProfileRequest::Kind::kDeleteSection:
        return DeleteSections();
    }
  }

  // --- finding

  using Lines = std::vector<ProfileLine>;
  using Place = Lines::const_iterator;

  [[nodiscard]] Place FindHeader(const Lines& lines) const {
    return std::find_if(lines.begin(), lines.end(), [this](const ProfileLine& line) {
      return line.kind == LineKind::kHeader && line.has_name && line.name == request_.section;
    });
  }

  // The line after the last line with content of the section. The empty lines and comments there belong to the next
  // header.
  static Place EndOfSection(Place header, Place end) {
    const Place next =
        std::find_if(header + 1, end, [](const ProfileLine& line) { return line.kind == LineKind::kHeader; });
    Place last = next;
    while (last != header + 1 && !(last - 1)->HasContent()) --last;
    return last;
  }

  static Place FindKey(Place begin, Place end, const std::string& key) {
    return std::find_if(begin, end,
                        [&key](const ProfileLine& line) { return line.kind == LineKind::kEntry && line.key == key; });
  }

  // --- steps

  void Set(const ProfileEntry& entry) {
    const Lines lines = LinesOf(plan_.text);
    const Place header = FindHeader(lines);
    if (header == lines.end()) return AppendSection(entry);
    const Place end = EndOfSection(header, lines.end());
    const Place found = FindKey(header + 1, end, entry.key);
    if (found == end) return Insert(*(end - 1), entry);
    if (found->value != entry.value) Replace(*found, entry);
  }

  void AppendSection(const ProfileEntry& entry) {
    plan_.changes.push_back({request_.section, "", {}, "", true});
    plan_.changes.push_back({request_.section, entry.key, {}, entry.value});
    plan_.text += "\n[" + request_.section + "]\n\n" + entry.key + "=" + entry.value + "\n";
    plan_.steps.push_back({.section = request_.section, .key = entry.key, .value = entry.value});
  }

  // Inserts the entry below the line `above`. If that line ends with a carriage return, so does the new one.
  void Insert(const ProfileLine& above, const ProfileEntry& entry) {
    plan_.changes.push_back({request_.section, entry.key, {}, entry.value});
    const bool has_return = plan_.text.compare(above.end - 2, 2, "\r\n") == 0;
    Splice(above.end, above.end, entry.key, entry.value + (has_return ? "\r" : ""));
  }

  // Replaces the value; the blanks and the comment of the line stay.
  void Replace(const ProfileLine& line, const ProfileEntry& entry) {
    plan_.changes.push_back({request_.section, entry.key, std::string(line.value), entry.value});
    const std::string& text = plan_.text;
    const std::size_t value_end = line.value_begin + line.value.size();
    Splice(line.begin, line.end, text.substr(line.begin, line.equals - line.begin),
           text.substr(line.equals + 1, line.value_begin - line.equals - 1) + entry.value +
               text.substr(value_end, line.end - 1 - value_end));
  }

  void Splice(std::size_t from, std::size_t to, std::string key, std::string value) {
    plan_.text.replace(from, to - from, key + "=" + value + "\n");
    plan_.steps.push_back({from, to, {}, std::move(key), std::move(value)});
  }

  void Remove(std::size_t from, std::size_t to) {
    plan_.text.erase(from, to - from);
    plan_.steps.push_back({from, to, {}, {}, {}});
  }

  // Deletes all entries of the key: readers would otherwise find the second one.
  void DeleteKey() {
    bool has_section = false;
    for (;;) {
      const Lines lines = LinesOf(plan_.text);
      const Place header = FindHeader(lines);
      has_section = header != lines.end();
      if (!has_section) break;
      const Place end = EndOfSection(header, lines.end());
      const Place found = FindKey(header + 1, end, request_.key);
      if (found == end) break;
      plan_.changes.push_back({request_.section, request_.key, std::string(found->value), {}});
      Remove(found->begin, found->end);
    }
    if (plan_.changes.empty()) plan_.state = has_section ? ProfileState::kNoKey : ProfileState::kNoSection;
  }

  // Deletes all sections of the name: readers would otherwise find the second one.
  void DeleteSections() {
    for (;;) {
      const Lines lines = LinesOf(plan_.text);
      const Place header = FindHeader(lines);
      if (header == lines.end()) break;
      const Place end = EndOfSection(header, lines.end());
      plan_.changes.push_back({request_.section, "", "", {}, true});
      for (Place line = header + 1; line != end; ++line) {
        if (line->kind != LineKind::kEntry) continue;
        plan_.changes.push_back({request_.section, std::string(line->key), std::string(line->value), {}});
      }
      Place begin = header;  // the empty lines above are removed as well
      while (begin != lines.begin() && (begin - 1)->kind == LineKind::kEmpty) --begin;
      Remove(begin->begin, (end - 1)->end);
    }
    if (plan_.changes.empty()) plan_.state = ProfileState::kNoSection;
  }

  const ProfileRequest& request_;
  ProfilePlan plan_;
};

// --- carrying out

struct CloseStream {
  void operator()(FILE* stream) const noexcept { (void)std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

const char* TextOrNull(const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; }

bool RunStep(const ProfileStep& step, const std::string& path) {
  if (!step.section.empty()) {
    return CIniFile::WritePrivateProfileString(step.section.c_str(), TextOrNull(step.key), TextOrNull(step.value),
                                               path.c_str());
  }
  file::Descriptor file = file::OpenRegular(path.c_str(), O_RDWR);
  Stream stream(fdopen(file.Number(), "r+"));
  if (!stream) return false;
  (void)file.Release();  // the stream closes it
  const bool is_written =
      CIniFile::WriteLines(stream.get(), static_cast<unsigned>(step.from), static_cast<unsigned>(step.to),
                           TextOrNull(step.key), TextOrNull(step.value), false);
  return std::fclose(stream.release()) == 0 && is_written;
}

bool AppendLineFeed(const std::string& path) {
  file::Descriptor file = file::OpenRegular(path.c_str(), O_WRONLY | O_APPEND);
  return file.IsOpen() && !file::Write(file.Number(), "\n").Failed() && file.Close() == 0;
}

bool HoldsText(const std::string& path, const std::string& text) {
  const file::Descriptor file = file::OpenRegular(path.c_str(), O_RDONLY);
  std::string bytes;
  return file.IsOpen() && file::ReadWhole(file.Number(), bytes, text.size()) == 0 && bytes == text;
}

// A file in memory with a path in /proc.
struct MemoryFile {
  MemoryFile() : file(memfd_create("profile", MFD_CLOEXEC)) {}
  [[nodiscard]] std::string Path() const { return "/proc/self/fd/" + std::to_string(file.Number()); }
  file::Descriptor file;
};

}  // namespace

ProfilePlan PlanEdit(const std::string& text, const ProfileRequest& request) {
  return Planner(text, request).Run(text);
}

std::string ApplyPlan(const ProfilePlan& plan, const std::string& text, const std::string& path) {
  if (!HoldsText(path, text)) return "the copy cannot be read back";
  if (ReadThroughClass(path) != ContentOf(text)) return "programs read the file differently from this tool";
  if (plan.completes_last_line && !AppendLineFeed(path)) return "the copy cannot be written";
  for (const ProfileStep& step : plan.steps) {
    if (!RunStep(step, path)) return "the copy cannot be edited";
  }
  if (!HoldsText(path, plan.text)) return "the edited copy is not as planned";
  if (ReadThroughClass(path) != ContentOf(plan.text)) return "the edited copy is not read back as planned";
  return {};
}

std::string TryPlan(const ProfilePlan& plan, const std::string& text) {
  const MemoryFile copy;
  if (!copy.file.IsOpen() || file::Write(copy.file.Number(), text).Failed())
    return "there is not enough memory for a copy";
  return ApplyPlan(plan, text, copy.Path());
}

}  // namespace qx::inifile
