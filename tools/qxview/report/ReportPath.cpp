#include "tools/qxview/report/ReportPath.h"

namespace qx::view {

namespace {

constexpr std::size_t kNameBytesMax = 1024;

bool IsComponent(std::string_view text) { return !text.empty() && text != "." && text != ".."; }

bool IsName(std::string_view name) {
  if (name.size() > kNameBytesMax || name.find('\0') != std::string_view::npos) return false;
  for (;;) {
    const std::size_t slash = name.find('/');
    if (!IsComponent(name.substr(0, slash))) return false;
    if (slash == std::string_view::npos) return true;
    name.remove_prefix(slash + 1);
  }
}

}  // namespace

std::optional<std::string> BasePathOf(const std::string& directory, std::string_view name) {
  if (!IsName(name)) return std::nullopt;
  return directory + "/" + std::string(name);
}

}  // namespace qx::view
