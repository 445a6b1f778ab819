// Plans and tries an edit of a profile file. The first line is a request: one character each for the kind, the section
// and the key, then the value. The rest is the file. CIniFile must be able to carry out an accepted plan, and the
// result must be read back as planned.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "inifile/tools/ProfileEdit.h"

namespace {

qx::inifile::ProfileRequest RequestOf(std::string_view line) {
  using Kind = qx::inifile::ProfileRequest::Kind;
  const Kind kind = line[0] == 's' ? Kind::kSet : line[0] == 'k' ? Kind::kDeleteKey : Kind::kDeleteSection;
  const std::string key(line.substr(2, 1));
  return {.kind = kind,
          .section = std::string(line.substr(1, 1)),
          .key = key,
          .entries = {{key, std::string(line.substr(3))}}};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = input.find('\n');
  if (end == std::string_view::npos || end < 3) return 0;
  const std::string text(input.substr(end + 1));
  const auto plan = qx::inifile::PlanEdit(text, RequestOf(input.substr(0, end)));
  if (plan.state != qx::inifile::ProfileState::kDone) return 0;
  const std::string wrong = qx::inifile::TryPlan(plan, text);
  if (wrong.empty()) return 0;
  std::fprintf(stderr, "an accepted plan fails: %s\n", wrong.c_str());
  std::abort();
}
