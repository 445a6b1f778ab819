// The registry: which of its files is used, and whether it is protected and whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/File.h"
#include "registry/Registry.h"
#include "tools/qxctl/doctor/Doctor.h"

namespace qx::ctl {

namespace {

const char kLocalMachine[] = "HKEY_LOCAL_MACHINE";

bool HasHive(CRegistryNode& root) {
  const LockScope lock(root.Lock());
  for (const StrMapEntry& entry : root.Entries()) {
    if (entry.name != nullptr && std::strcmp(entry.name, kLocalMachine) == 0) return true;
  }
  return false;
}

// Whether there is a file at `path`; adds findings about the file itself.
bool CheckFile(const std::string& path, DoctorFindings& findings) {
  struct stat found;
  if (lstat(path.c_str(), &found) != 0) return false;
  if (S_ISLNK(found.st_mode)) findings.push_back({"QX205", path + " is a symbolic link"});
  const file::Descriptor opened = file::Open(path.c_str(), O_RDONLY);
  const int error = errno;
  if (!opened.IsOpen()) {
    findings.push_back({"QX203", path + ": " + std::strerror(error)});
    return true;
  }
  if (const std::string open_to_all = WritableByOthers(path); !open_to_all.empty()) {
    findings.push_back({"QX206", open_to_all + " can be written by everybody"});
  }
  return true;
}

void CheckTree(const std::string& path, bool is_first, CRegistryNode& tree, DoctorFindings& findings) {
  if (!is_first) findings.push_back({"QX202", "the registry comes from " + path});
  if (!HasHive(tree)) findings.push_back({"QX207", path + " has no hive " + kLocalMachine});
}

}  // namespace

void CheckRegistry(const DoctorPlaces& places, DoctorFindings& findings) {
  const std::size_t before = findings.size();
  bool has_file = false;
  std::string source;
  for (const char* const name : {"registry", "registry.old", "registry.default"}) {
    const std::string path = places.registry_directory + "/" + name;
    has_file |= CheckFile(path, findings);
    CRegistryNode tree;
    if (!source.empty() || !CRegistry::ReadTree(path.c_str(), tree)) continue;
    source = path;
    CheckTree(path, std::strcmp(name, "registry") == 0, tree, findings);
  }
  const std::string unread = places.registry_directory + "/registry.unread";
  if (access(unread.c_str(), F_OK) == 0) findings.push_back({"QX208", "there is a " + unread});
  if (!has_file) {
    findings.push_back({"QX201", "there is no registry in " + places.registry_directory});
  } else if (source.empty()) {
    findings.push_back({"QX204", "no registry file in " + places.registry_directory + " holds a value"});
  }
  if (findings.size() == before) findings.push_back({"QX200", source + " loads"});
}

}  // namespace qx::ctl
