// Stores a call into a module, its arguments and its results, as a file. docs/testing-modules.md has the format.
//
// Such a file may come from anywhere. Reading it costs time and memory in proportion to its size, at most kCallFileMax
// bytes, whatever its content.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "provider/tools/RawBlock.h"
#include "tools/qxctl/module/CallFields.h"

namespace qx::ctl {

using provider::RawBlock;

inline constexpr std::size_t kCallFileMax = std::size_t{16} << 20;
inline constexpr std::size_t kCallElementsMax = 4096;  // of a block, including nested ones

// NOLINTNEXTLINE(bugprone-exception-escape): moving JSON does not throw, but its checks look as if they could.
struct RecordedCall {
  std::string function;  // "What", "Reflect", "GetReports" or "GetReportInstanceNames"
  CallJson block;        // in the form of the file
  std::string input;
  int result = 0;
  std::optional<std::uint32_t> state_word;  // of GetReports: the state word in the module's data
  std::optional<std::string> reply;
};

// The text of the file, with a line end.
[[nodiscard]] std::string CallFileText(const RecordedCall& call);

// False with the reason, for an operator, if `text` is not such a file; `call` is then undefined.
[[nodiscard]] bool ParseCallFile(const std::string& text, RecordedCall& call, std::string& problem);

// A block of the host in the form of the file; pointers that only a module understands become null. A module must be
// able to read the block: its counts are right, and its texts end with a NUL. Of a chain, at most 64 blocks are
// written.
[[nodiscard]] CallJson BlockToJson(const wcs_gendata& block);

// Builds the block. False with the reason if `json` does not have the form of the file.
[[nodiscard]] bool BlockFromJson(const CallJson& json, RawBlock& block, std::string& problem);

}  // namespace qx::ctl
