#include "agent/Reports.h"

#include <sys/stat.h>

#include <algorithm>

#include "base/File.h"

namespace qx::agent {

namespace {

constexpr mode_t kDirectoryMode = 0755;

// Creates the missing directories above `path`. If a directory cannot be created, opening the report will fail.
void MakeDirectoriesAbove(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    (void)file::MakeDirectory(path.substr(0, slash).c_str(), kDirectoryMode);
  }
}

}  // namespace

Error Reports::Append(const std::string& name, const std::string& text) {
  Writer& report = writers_[name];
  if (!report.IsOpen()) {
    const std::string path = directory_ + "/" + name;
    MakeDirectoriesAbove(path);
    if (Error error = report.Open(path, slots_, WriterCheck::kLock); error.Failed()) return error;
  }
  Error error = report.Append(text);
  if (error.Failed()) report.Close();
  return error;
}

void Reports::CloseOthers(const std::vector<Sample>& samples) {
  std::erase_if(writers_, [&samples](const auto& writer) {
    return std::none_of(samples.begin(), samples.end(),
                        [&writer](const Sample& sample) { return sample.report == writer.first; });
  });
}

}  // namespace qx::agent
