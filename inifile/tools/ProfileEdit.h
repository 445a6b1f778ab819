// Careful edits of profile files, for tools. CIniFile edits the entries that its writer finds, removes comments above
// them, and can store values that no reader returns. An edit of this header changes the entry that readers find, and
// only its line. Then the whole file is read back and checked.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inifile/tools/ProfileText.h"

namespace qx::inifile {

// The requested edit. Names of section and key are those that programs use.
struct ProfileRequest {
  enum class Kind { kSet, kDeleteKey, kDeleteSection };
  Kind kind = Kind::kSet;
  std::string section;
  std::string key;                    // kDeleteKey
  std::vector<ProfileEntry> entries;  // kSet: in this order; a section that is missing is appended
};

enum class ProfileState {
  kDone,
  kNoSection,
  kNoKey,
  kRefused,  // `reason` says why
};

// The effect of one edit on the values that programs read.
struct ProfileChange {
  std::string section;
  std::string key;                    // empty with `is_section`: the section itself is added or removed
  std::optional<std::string> before;  // nothing: it was missing
  std::optional<std::string> after;
  bool is_section = false;
};

// One call of CIniFile.
struct ProfileStep {
  std::size_t from = 0;
  std::size_t to = 0;
  std::string section;               // not empty: key and value go into a new section at the end
  std::optional<std::string> key;    // nothing: the bytes are taken out
  std::optional<std::string> value;  // with blanks and comment of the line that it replaces
};

struct ProfilePlan {
  ProfileState state = ProfileState::kDone;
  std::string reason;
  std::vector<ProfileChange> changes;  // empty: the file is already as requested
  bool completes_last_line = false;    // the missing line feed of the last line is added
  std::string text;                    // the file after the edit
  std::vector<ProfileStep> steps;      // each on the text after the previous one
};

// The effect of `request` on a file with `text`. [any thread]
[[nodiscard]] ProfilePlan PlanEdit(const std::string& text, const ProfileRequest& request);

// Carries the plan out on the file at `path`, whose content is `text`, and reads every entry back. Returns empty, or
// what is wrong; the file must not be used then. [any thread]
[[nodiscard]] std::string ApplyPlan(const ProfilePlan& plan, const std::string& text, const std::string& path);

// ApplyPlan on a copy in memory. Empty if the file may get `plan.text`. [any thread]
[[nodiscard]] std::string TryPlan(const ProfilePlan& plan, const std::string& text);

}  // namespace qx::inifile
