// Request documents of every kind through the exported functions, from the raw call to the reply, against a small report.
//
// Input: one byte that picks the function and whether the caller was refused, then the document.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "markup/Markup.h"
#include "provider/KrxAdapterModule.h"
#include "provider/ModuleExports.h"
#include "reportfile/ReportFileBase.h"
#include "tests/support/BlockBuilder.h"

namespace {

using qx::test::BlockBuilder;

[[noreturn]] void Wrong(const char* what) {
  std::fprintf(stderr, "RequestFuzz: %s\n", what);
  std::abort();
}

// A working directory with a report "r1" below "Reports", where the module looks when the configuration names no
// directory; and the module object.
class World {
 public:
  World() {
    char directory[] = "/tmp/qx-fuzz-XXXXXX";
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0) Wrong("no working directory");
    directory_ = directory;
    std::filesystem::create_directory("Reports");
    CReportFileBase store;
    if (!store.Open("Reports/r1", 4)) Wrong("no report");
    for (const char* record : {"one", "two <&>", "three ]]>", "four", "five"}) {
      if (!store.writeLine(record)) Wrong("no record");
    }
    if (CreateModule(nullptr) != 1) Wrong("no module object");
  }
  ~World() {
    DeleteModule();
    std::error_code ignored;  // a directory left in /tmp harms nobody
    std::filesystem::remove_all(directory_, ignored);
  }

 private:
  std::string directory_;
};

void CheckReply(QxRequestFunction function, int result, const char* reply, const std::string& document, bool refused) {
  if (result != 0 && result != 1 && result != 12) Wrong("an unknown result");
  if (reply == nullptr) return;
  CMarkup parsed;
  if (!parsed.SetDoc(reply)) Wrong("a reply that is not well formed");
  if (function == Reflect && document.c_str() != std::string(reply)) Wrong("an echo that differs");
  if (function == GetReports && refused && parsed.FindElem("ReportData")) Wrong("a refused caller got records");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const World world;
  if (size == 0) return 0;
  static constexpr QxRequestFunction kFunctions[] = {GetReports, What, Reflect, GetReports};
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
