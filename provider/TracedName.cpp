#include "provider/TracedName.h"

#include <algorithm>

#include "debug/Debug.h"
#include "provider/HexDump.h"

namespace qx::provider {

std::string ShownName(std::string_view name) {
  constexpr unsigned char kFirstShown = 0x20;
  constexpr unsigned char kDelete = 0x7F;
  std::string shown(name);
  std::replace_if(
      shown.begin(), shown.end(),
      [](char byte) {
        const auto code = static_cast<unsigned char>(byte);
        return code < kFirstShown || code == kDelete;
      },
      '.');
  return shown;
}

void TraceNameDump(std::uint32_t level, const std::string& name) {
  if (!Debug.IsActive(level)) return;
  QX_TRACE(level, "\n%s", NameHexDump(name.c_str()).c_str());
}

}  // namespace qx::provider
