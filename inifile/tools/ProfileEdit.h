// Edits profile files with care, for tools. CIniFile edits the entry that its writer finds, removes comments above the
// entry, and can store values that no reader returns. An edit here changes the entry that readers find, and only its
// line. Then the whole file is read back and checked.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inifile/tools/ProfileText.h"

namespace qx::inifile {

// A requested edit. `section` and `key` are the names that programs use.
struct ProfileRequest {
  enum class Kind { kSet, kDeleteKey, kDeleteSection };
  Kind kind = Kind::kSet;
  std::string section;
  std::string key;                    // kDeleteKey
  std::vector<ProfileEntry> entries;  // kSet: set in this order; a missing section is appended
};

enum class ProfileState {
  kDone,
  kNoSection,
  kNoKey,
  kRefused,  // `reason` has the reason
};

// The effect of one edit on the values that programs read.
struct ProfileChange {
  std::string section;
  std::string key;                    // empty with `is_section`: the section itself is added or removed
  std::optional<std::string> before;  // unset: the entry or section was missing
  std::optional<std::string> after;
  bool is_section = false;
};

// One call of CIniFile.
struct ProfileStep {
  std::size_t from = 0;
  std::size_t to = 0;
  std::string section;               // not empty: key and value are written in a new section at the end
  std::optional<std::string> key;    // unset: the bytes are only removed
  std::optional<std::string> value;  // with the blanks and the comment of the old line
};

struct ProfilePlan {
  ProfileState state = ProfileState::kDone;
  std::string reason;
  std::vector<ProfileChange> changes;  // empty: the file already has the requested values
  bool completes_last_line = false;    // a missing line feed is added to the last line
  std::string text;                    // the file after the edit
  std::vector<ProfileStep> steps;      // the offsets of a step refer to the text after the previous step
};

// Plans the edit `request` of a file with `text`. [any thread]
[[nodiscard]] ProfilePlan PlanEdit(const std::string& text, const ProfileRequest& request);

// Carries the plan out on the file at `path`, whose content is `text`, and reads every entry back. Returns an empty
// text, or what is wrong; then the file must not be used. [any thread]
[[nodiscard]] std::string ApplyPlan(const ProfilePlan& plan, const std::string& text, const std::string& path);

// Tries ApplyPlan on a copy in memory. Returns an empty text if the file can be replaced by `plan.text`, otherwise what
// is wrong. [any thread]
[[nodiscard]] std::string TryPlan(const ProfilePlan& plan, const std::string& text);

}  // namespace qx::inifile
