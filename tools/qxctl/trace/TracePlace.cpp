#include "tools/qxctl/trace/TracePlace.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "debug/tools/TraceSettingSources.h"

namespace qx::ctl {

std::string TraceDirectoryHere() {
  for (const debug::SettingSource& source : debug::ReadSettingSources("QXRemConXfer", debug::kTraceConfigDirectory)) {
    if (source.setting == "trace directory") return source.value;
  }
  return {};
}

Status FindTraceFiles(const std::string& directory, std::vector<std::string>& names) {
  std::error_code error;
  for (const auto& item : std::filesystem::directory_iterator(directory, error)) {
    std::error_code gone;
    const std::string name = item.path().filename();
    if (name.starts_with("log.") && item.is_regular_file(gone)) names.push_back(name);
  }
  if (error) return Status::Io("cannot list " + directory, error.value());
  if (names.empty()) return {ExitCode::kNotFound, "there are no trace files (log.*) in " + directory};
  std::sort(names.begin(), names.end());
  return {};
}

}  // namespace qx::ctl
