#include "tools/qxctl/report/RecordRun.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "reportfile/RecordEnds.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kTextBytesMax = std::size_t{256} * 1024;

// True if the text has `count` lines, and nothing but their line feeds ends a record.
bool IsLines(std::string_view text, std::uint32_t count) {
  const bool has_other_end = text.find('\xFF') != std::string_view::npos || text.find('\0') != std::string_view::npos;
  return text.ends_with('\n') && !has_other_end && report::CountTextEnds(text) == count;
}

}  // namespace

Status RecordRun::Pass(std::uint32_t slot, std::uint32_t count, std::uint32_t& passed) {
  text_.clear();
  const std::uint32_t taken = reader_.Take(slot, {.count_max = count, .gathered_max = kTextBytesMax}, &text_).count;
  if (taken != 0 && IsLines(text_, taken)) {
    passed += taken;
    return PassLines();
  }
  const std::uint32_t singly =
      std::max(taken, std::uint32_t{1});  // none is taken if the first is too long or unreadable
  passed += singly;
  return PassSingly(slot, singly);
}

Status RecordRun::PassLines() {
  for (std::string_view rest = text_; !rest.empty();) {
    const std::size_t bytes = rest.find('\n') + 1;
    record_.assign(rest.substr(0, bytes));
    if (Status status = take_(record_); !status.IsOk()) return status;
    rest.remove_prefix(bytes);
  }
  return {};
}

Status RecordRun::PassSingly(std::uint32_t slot, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) {
    const int error = store_.readLine(record_, slot + i) ? 0 : errno;
    if (error != 0) return Status::Io("cannot read a record of " + path_, error);
    if (Status status = take_(record_); !status.IsOk()) return status;
  }
  return {};
}

}  // namespace qx::ctl
