#include "tools/qxctl/slice/Slice.h"

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

RecordPattern::~RecordPattern() {
  if (is_compiled_) regfree(&compiled_);
}

Status RecordPattern::Compile(const std::string& text) {
  const int error = regcomp(&compiled_, text.c_str(), REG_EXTENDED | REG_NOSUB);
  is_compiled_ = error == 0;
  if (is_compiled_) return {};
  char reason[128] = "";
  (void)regerror(error, &compiled_, reason, sizeof reason);
  return {ExitCode::kUsage, "--grep: \"" + Visible(text) + "\" is not a regular expression (" + reason +
                                "); put a \\ before a character that means itself"};
}

bool RecordPattern::Matches(std::string_view text) const {
  regmatch_t range = {};
  range.rm_so = 0;
  range.rm_eo = static_cast<regoff_t>(text.size());
  return regexec(&compiled_, text.data(), 1, &range, REG_STARTEND) == 0;
}

bool IsInTime(const Slice& slice, std::optional<std::int64_t> time_ms) {
  if (!slice.HasTimes()) return true;
  if (!time_ms) return false;
  if (slice.since_ms && *time_ms < *slice.since_ms) return false;
  return !slice.until_ms || *time_ms <= *slice.until_ms;
}

bool SliceFilter::Takes(std::string_view text) {
  if (!slice_.Filters()) return true;
  return Takes(text, slice_.HasTimes() ? TimeOfRecord(text, slice_.time) : std::nullopt);
}

bool SliceFilter::Takes(std::string_view text, std::optional<std::int64_t> time_ms) {
  if (time_ms) time_ms_ = time_ms;
  return IsInTime(slice_, time_ms_) && (slice_.pattern == nullptr || slice_.pattern->Matches(text));
}

}  // namespace qx::ctl
