#include "agent/Reports.h"

#include <sys/stat.h>

#include "base/File.h"

namespace qx::agent {

namespace {

constexpr mode_t kDirectoryMode = 0755;

// Creates the directories above `path` below the top. If one cannot be created, opening the report fails.
void MakeDirectoriesAbove(const std::string& top, const std::string& name) {
  (void)file::MakeDirectory(top.c_str(), kDirectoryMode);
  for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
    (void)file::MakeDirectory((top + "/" + name.substr(0, slash)).c_str(), kDirectoryMode);
  }
}

}  // namespace

Error Reports::Append(const std::string& name, const std::string& text) {
  Writer& report = writers_[name];
  if (!report.IsOpen()) {
    MakeDirectoriesAbove(directory_, name);
    if (Error error = report.Open(directory_ + "/" + name, slots_, WriterCheck::kLock); error.Failed()) return error;
  }
  Error error = report.Append(text);
  if (error.Failed()) report.Close();
  return error;
}

}  // namespace qx::agent
