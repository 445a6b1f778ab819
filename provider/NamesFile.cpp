#include "provider/NamesFile.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "base/File.h"
#include "base/OwnedLinks.h"
#include "inifile/LineScanner.h"
#include "inifile/ProfileSyntax.h"

namespace qx::provider {

namespace {

constexpr std::string_view kHeadSection = "Quaxel Report Instances";
constexpr std::string_view kNamesSection = "Names";

// The size of the longest list of names, each with its NUL, that CIniFile returns. CIniFile reads a list into 64,512
// bytes. If fewer than three of them stay unused, the list may have been cut, and counts as empty.
constexpr std::size_t kListBytesMax = 63 * 1024 - 3;
// The number of characters of a number that are read; the rest is ignored.
constexpr std::size_t kNumberCharactersMax = 31;

// The path of the names file relative to the report directory. A "/" at the start of a name is ignored.
//   "r" => "r.names"    "//sub/r" => "sub/r.names"    "" => ".names"
std::string FileName(std::string_view name) {
  name.remove_prefix(std::min(name.find_first_not_of('/'), name.size()));
  return std::string(name).append(".names");
}

}  // namespace

// Handles the lines of the file in their order. If several sections have the same name, only the first one counts.
class NamesFile::Scan {
 public:
  explicit Scan(NamesFile& file) : file_(file) {}

  void Run(inifile::LineScanner& lines) {
    while (!IsComplete()) {
      if (in_ == Section::kOther) lines.SkipLines({.column = 0, .byte = '['}, inifile::IsPlainText);
      std::string_view line;
      if (!lines.Next(line)) break;
      Take(inifile::WithoutLeadingWhiteSpace(line));
    }
    if (list_bytes_ > kListBytesMax || !HasNames()) file_.instances_.clear();
  }

 private:
  enum class Section { kOther, kHead, kNames };

  bool HasNames() const { return file_.version_ == kVersionWithNames; }

  // True if no further line can change anything.
  bool IsComplete() const {
    const bool has_head = has_left_head_ || (version_ && has_name_);
    return has_head && (has_left_names_ || list_bytes_ > kListBytesMax || !HasNames());
  }

  void Take(std::string_view line) {
    if (inifile::IsHeader(line)) return Enter(inifile::WithoutComment(line));
    if (in_ == Section::kOther) return;
    const std::optional<inifile::Entry> entry = inifile::ParseEntry(inifile::WithoutComment(line));
    if (!entry) return;
    if (in_ == Section::kHead) {
      TakeOfHead(*entry);
    } else {
      TakeName(*entry);
    }
  }

  void Enter(std::string_view header) {
    has_left_head_ = has_left_head_ || in_ == Section::kHead;
    has_left_names_ = has_left_names_ || in_ == Section::kNames;
    in_ = Section::kOther;
    if (!has_left_head_ && inifile::IsHeaderOf(header, kHeadSection)) in_ = Section::kHead;
    if (!has_left_names_ && inifile::IsHeaderOf(header, kNamesSection)) in_ = Section::kNames;
  }

  void TakeOfHead(const inifile::Entry& entry) {
    if (entry.key == "Version" && !version_) {
      version_ = std::string(entry.value.substr(0, kNumberCharactersMax));
      file_.version_ = static_cast<int>(std::strtoul(version_->c_str(), nullptr, 0));
    } else if (entry.key == "Name" && !has_name_) {
      has_name_ = true;
      file_.report_name_ = entry.value;
    }
  }

  // Quirk: an empty key ends the list, and a list that is too long counts as empty.
  void TakeName(const inifile::Entry& entry) {
    list_bytes_ += entry.key.size() + 1;
    has_ended_ = has_ended_ || entry.key.empty();
    if (has_ended_ || list_bytes_ > kListBytesMax) return;
    const auto at = file_.names_.try_emplace(std::string(entry.key), entry.value).first;
    file_.instances_.push_back(&*at);
  }

  NamesFile& file_;
  Section in_ = Section::kOther;
  bool has_left_head_ = false;
  bool has_left_names_ = false;
  std::optional<std::string> version_;
  bool has_name_ = false;
  std::size_t list_bytes_ = 0;
  bool has_ended_ = false;  // by an empty key
};

bool NamesFile::Read(const std::string& directory, const std::string& name) {
  // O_PATH, because a user who may look up names in the directory may not be allowed to list it. An empty `directory`
  // is the root directory.
  const file::Descriptor at = file::Open((directory + "/").c_str(), O_PATH | O_DIRECTORY);
  if (!at.IsOpen()) return false;
  const file::Descriptor file =
      file::OpenThroughOwnedLinks(FileName(name).c_str(), O_RDONLY, 0, file::TrustedLinks::kToRead, at.Number());
  if (!file.IsOpen()) return false;

  std::array<char, inifile::LineScanner::kWindowBytes> window;
  inifile::LineScanner lines(file.Number(), window);
  Scan(*this).Run(lines);
  return !lines.HasFailed();
}

}  // namespace qx::provider
