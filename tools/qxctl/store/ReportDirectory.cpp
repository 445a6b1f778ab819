#include "tools/qxctl/store/ReportDirectory.h"

#include <unistd.h>

#include <filesystem>

#include "provider/ServerControlPaths.h"
#include "reportfile/StoreFormat.h"
#include "tools/qxctl/store/FallbackDirectory.h"

namespace qx::ctl {

namespace {

bool HasFiles(const std::string& base_path) {
  return access(report::IndexFileName(base_path).c_str(), F_OK) == 0 ||
         access(report::DataFileName(base_path).c_str(), F_OK) == 0;
}

// "load.ind" => "load", unless there is a report load.ind
std::string WithoutEnding(const std::string& base_path) {
  const bool has_ending = base_path.ends_with(".ind") || base_path.ends_with(".dat");
  constexpr std::size_t kEndingChars = 4;
  return has_ending && !HasFiles(base_path) ? base_path.substr(0, base_path.size() - kEndingChars) : base_path;
}

// The path of the report relative to the directory; empty if it is not below it. Symbolic links in both paths are
// resolved first.
std::string NameBelow(const std::string& directory, const std::string& base_path) {
  std::error_code error;
  const std::filesystem::path file(base_path);
  const std::filesystem::path parent = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
  const std::filesystem::path from = std::filesystem::canonical(directory, error);
  if (error) return {};
  const std::filesystem::path to = std::filesystem::canonical(parent, error);
  if (error) return {};
  const std::string name = (to / file.filename()).lexically_relative(from).string();
  return name.starts_with("..") ? "" : name;
}

bool HasSlash(const std::string& argument) { return argument.find('/') != std::string::npos; }

// Strips the ending of a name below the directory.
std::string BasePathBelow(const std::string& directory, const std::string& name) {
  return WithoutEnding(directory + "/" + name);
}

}  // namespace

bool MayBeReportName(const std::string& argument) {
  const std::string framed = "/" + argument + "/";
  return !argument.starts_with('/') && framed.find("/./") == std::string::npos &&
         framed.find("/../") == std::string::npos;
}

std::string ReportDirectory() {
  std::string directory;
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  return directory;
}

Status FindReportDirectory(std::string& directory) {
  if (Status status = CheckFallbackDirectory(); !status.IsOk()) return status;
  directory = ReportDirectory();
  return {};
}

Status FindNewBasePath(const std::string& name_or_path, std::string& path) {
  path = WithoutEnding(name_or_path);
  if (HasSlash(name_or_path)) return {};
  std::string directory;
  if (Status status = FindReportDirectory(directory); !status.IsOk()) return status;
  path = BasePathBelow(directory, name_or_path);
  return {};
}

Status FindBasePath(const std::string& name_or_path, std::string& path) {
  if (Status status = FindNewBasePath(name_or_path, path); !status.IsOk()) return status;
  const bool is_found = !HasSlash(name_or_path) || HasFiles(path) || !MayBeReportName(name_or_path);
  std::string directory;
  // If there is no report directory that may be used, the argument stays a path.
  if (is_found || !FindReportDirectory(directory).IsOk()) return {};
  const std::string below = BasePathBelow(directory, name_or_path);
  if (HasFiles(below)) path = below;
  return {};
}

Status FindReportName(const std::string& name_or_path, std::string& name) {
  std::string directory;
  if (Status status = FindReportDirectory(directory); !status.IsOk()) return status;
  name = name_or_path;
  const std::string path = WithoutEnding(name_or_path);
  const bool is_path = HasSlash(name_or_path) && HasFiles(path);
  if (is_path) {
    name = NameBelow(directory, path);
    if (!name.empty()) return {};
    return {ExitCode::kNotFound, path + " is not below the report directory " + directory +
                                     ", so the module cannot transfer it; \"qxctl report cat " + path + "\" prints it"};
  }
  const std::string stripped = BasePathBelow(directory, name);
  const bool has_ending = stripped.size() < directory.size() + 1 + name.size() && HasFiles(stripped);
  if (has_ending) name = stripped.substr(directory.size() + 1);
  return {};
}

std::string BasePathOfReport(const std::string& name) {
  if (("/" + name + "/").find("/../") != std::string::npos) return {};
  return ReportDirectory() + "/" + name;
}

}  // namespace qx::ctl
