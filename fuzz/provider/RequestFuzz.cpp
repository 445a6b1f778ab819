// Request documents of every kind through the exported functions, from the raw call to the reply, against a small
// report.
//
// Input: one byte that picks the function and whether the caller was refused, then the document.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

// A directory with a report "r1" and its instance names below "Reports", where the module looks below its working
// directory when the configuration names no other; and the module object.
class World {
 public:
  World() {
    char directory[] = "/tmp/qx-fuzz-XXXXXX";
    if (mkdtemp(directory) == nullptr) Wrong("no directory");
    directory_ = directory;
    std::filesystem::create_directory(directory_ + "/Reports");
    CReportFileBase store;
    if (!store.Open((directory_ + "/Reports/r1").c_str(), 4)) Wrong("no report");
    for (const char* record : {"one", "two <&>", "three ]]>", "four", "five"}) {
      if (!store.writeLine(record)) Wrong("no record");
    }
    std::ofstream names(directory_ + "/Reports/r1.names");
    if (!(names << "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=North & <South>\n" << std::flush)) {
      Wrong("no names file");
    }
    if (CreateModule(nullptr) != 1) Wrong("no module object");
  }
  ~World() {
    DeleteModule();
    std::error_code ignored;  // a directory left in /tmp harms nobody
    std::filesystem::remove_all(directory_, ignored);
  }
  const std::string& Directory() const { return directory_; }

 private:
  std::string directory_;
};

// The world's directory as the working directory for the length of a scope: the driver's own paths may be relative.
class InWorld {
 public:
  explicit InWorld(const World& world) : old_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (old_ < 0 || chdir(world.Directory().c_str()) != 0) Wrong("no working directory");
  }
  ~InWorld() {
    if (fchdir(old_) != 0) Wrong("no way back");
    close(old_);
  }
  InWorld(const InWorld&) = delete;
  InWorld& operator=(const InWorld&) = delete;

 private:
  int old_;
};

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
