// Careful edits of profile files, for tools. The class edits where its writer sees an entry, takes comments above it
// along, and stores what no reader returns; here an edit finds what readers find, changes that line alone, and is
// checked by reading everything back. The module does not link it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inifile/tools/ProfileText.h"

namespace qx::inifile {

// What is requested. `section` and `key` as programs name them.
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

// What one edit does to what programs read.
struct ProfileChange {
  std::string section;
  std::string key;                    // empty with `is_section`: the section itself comes or goes
  std::optional<std::string> before;  // nothing: it was missing
  std::optional<std::string> after;
  bool is_section = false;
};

// One call of the class.
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
  std::vector<ProfileChange> changes;  // none: the file is as requested already
  bool completes_last_line = false;    // the last line gets the line feed that it lacks
  std::string text;                    // the file afterwards
  std::vector<ProfileStep> steps;      // each on the text that the one before left
};

// What `request` would do to a file that holds `text`. [any thread]
[[nodiscard]] ProfilePlan PlanEdit(const std::string& text, const ProfileRequest& request);

// Carries the plan out on the file at `path`, which holds `text`, and reads every entry back. Empty, or what is wrong;
// the file must not be used then. [any thread]
[[nodiscard]] std::string CarryOut(const ProfilePlan& plan, const std::string& text, const std::string& path);

// CarryOut on a copy in memory. Empty if the file may then hold `plan.text`. [any thread]
[[nodiscard]] std::string Rehearse(const ProfilePlan& plan, const std::string& text);

}  // namespace qx::inifile
