// Prepares what a fuzz program needs to call the exported functions: a private report directory and the module object.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/support/Require.h"
#include "provider/ModuleExports.h"
#include "reportfile/ReportFileBase.h"

namespace qx::fuzz {

// Creates the module object and a directory with the report "r1" and its instance names in "Reports". The module uses
// "Reports" in its working directory if the configuration names no other directory.
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
    std::error_code ignored;  // a directory that is left over in /tmp does no harm
    std::filesystem::remove_all(directory_, ignored);
  }
  const std::string& Directory() const { return directory_; }

 private:
  std::string directory_;
};

// Makes the world's directory the working directory until the end of a scope. libFuzzer's own paths may be relative.
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

}  // namespace qx::fuzz
