// Reads any bytes as a trace settings file. Every value must be within its bounds, and nothing is read outside the
// text.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "debug/DebugTraceConfig.h"
#include "fuzz/support/Require.h"

namespace {

using qx::fuzz::Require;

constexpr std::string_view kSections[] = {"GlobalDebugSettings", "QXRemConXfer", "", "EndOfFile"};
constexpr std::string_view kKeys[] = {"DynamicUpdate",       "FileDebugLevel",       "TraceFlags",
                                      "RingBufferDirectory", "RingBufferSizeFactor", "RingBufferSizeWeight",
                                      "NoHeaderToStderr",    "MemoryTracesFlag"};

void ReadKey(const CDebugTraceConfigFile& file, std::string_view key, bool has_section) {
  std::string_view text;
  std::uint32_t number = 0;
  const bool has_text = file.ReadString(key, text);
  Require(file.ReadNumber(key, number) == has_text);
  Require(has_section || !has_text);
  Require(text.size() <= CDebugTraceConfigFile::kValueCharsMax);
  Require(text.find('\n') == std::string_view::npos && text.find('\0') == std::string_view::npos);
  Require(text.find('[') == std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CDebugTraceConfigFile file;
  const bool is_complete = file.ReadText({reinterpret_cast<const char*>(data), size});
  for (const std::string_view section : kSections) {
    const bool has_section = file.FindSection(section);
    Require(is_complete || !has_section);
    for (const std::string_view key : kKeys) ReadKey(file, key, has_section);
  }
  return 0;
}
