// Passes request documents of every kind to the exported functions, which read a small report, and checks the replies.
//
// Input: one byte that selects the function and whether the caller lacks the privilege, then the document.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/provider/World.h"
#include "markup/Markup.h"
#include "provider/ModuleExports.h"
#include "tests/support/BlockBuilder.h"

namespace {

using qx::fuzz::InWorld;
using qx::fuzz::World;
using qx::fuzz::Wrong;
using qx::test::BlockBuilder;

void CheckReply(QxRequestFunction function, int result, const char* reply, const std::string& document, bool refused) {
  if (result != 0 && result != 1 && result != 12) Wrong("an unknown result");
  if (reply == nullptr) return;
  CMarkup parsed;
  if (!parsed.SetDoc(reply)) Wrong("a reply that is not well formed");
  if (function == Reflect && document.c_str() != std::string(reply)) Wrong("an echo that differs");
  if (refused && parsed.FindElem("ReportData") && function == GetReports) Wrong("a refused caller got records");
  if (refused && parsed.FindElem("ReportInstanceNames") && function == GetReportInstanceNames) {
    Wrong("a refused caller got names");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const World world;
  if (size == 0) return 0;
  const InWorld in_world(world);
  static constexpr QxRequestFunction kFunctions[] = {GetReports, What, Reflect, GetReportInstanceNames};
  const QxRequestFunction function = kFunctions[data[0] % 4];
  const bool refused = (data[0] & 4) != 0;
  const std::string document(reinterpret_cast<const char*>(data) + 1, size - 1);

  const auto block = BlockBuilder::Request("fuzz");
  if (refused) block->Security("nobody", {{"Operations", {"Read"}}});
  for (int call = 0; call < 2; ++call) {
    char* reply = nullptr;
    const int result = function(block->Block(), document.c_str(), &reply);
    CheckReply(function, result, reply, document, refused);
    __free(reply);
  }
  __threadend(block->Entry(0)->value);
  return 0;
}
