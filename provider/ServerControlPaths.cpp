#include "provider/ServerControlPaths.h"

#include <cstddef>

#include "process/Process.h"
#include "registry/Registry.h"

namespace {

constexpr char kUuidKey[] = "SYSTEM\\CurrentControlSet\\Control\\UUID\\C3681B60-0D26-11D3-8319-00A0C9B61E25";
constexpr char kRootPointer[] = "Server Control";
constexpr char kDefaultRoot[] = "SOFTWARE\\Dremlor\\Management\\Server Control";
constexpr int kReadAccess = 0;  // the registry ignores it

// Opens a key below the local machine's hive. The construction of a handle loads the tree, so MLocalMachine is read
// here, when `registry` exists.
bool OpenBelowLocalMachine(CRegistry& registry, const char* key) {
  return registry.Open(key, CRegistry::MLocalMachine, kReadAccess) == 0;
}

// Reads the string of the pointer value, with a buffer of the stored value's size. False if there is no such string, or
// if the string with its variables expanded is longer than the stored one.
bool ReadRootPointer(CRegistry& registry, std::string& root) {
  if (!OpenBelowLocalMachine(registry, kUuidKey)) return false;
  unsigned size = registry.GetValueSize(kRootPointer, nullptr);
  if (size == 0) return false;
  std::string buffer(size, '\0');
  if (registry.QueryValue(buffer.data(), kRootPointer, &size, nullptr) != 0) return false;
  root.assign(buffer.c_str());
  return !root.empty();  // an empty pointer names no root
}

std::string SetupKey() {
  CRegistry registry;
  std::string root;
  if (!ReadRootPointer(registry, root)) root = kDefaultRoot;
  return root + "\\" + "Setup";
}

// Reads a directory name from the Setup key. Each call finds the suite's root again, with handles of its own.
bool ReadSetupDirectory(const char* name, std::string& directory) {
  const std::string key = SetupKey();
  CRegistry registry;
  if (!OpenBelowLocalMachine(registry, key.c_str())) return false;
  return registry.GetValueSize(name, nullptr) != 0 && registry.QueryValue(directory, name, nullptr) == 0;
}

//   /var/reports/ => /var/reports
//   /ab/          => /ab
//   /a/, /        => as they are
void StripTrailingSlash(std::string& path) {
  constexpr std::size_t kShortestStripped = 3;
  if (path.size() > kShortestStripped && path.back() == '/') path.pop_back();
}

}  // namespace

const char* CServerControlPaths::GetServerControlReportPath(std::string& path) {
  std::string directory;
  if (ReadSetupDirectory("ReportRoot", directory)) {
    StripTrailingSlash(directory);
    path = directory;
    return path.c_str();
  }
  if (ReadSetupDirectory("FileRoot", directory)) {
    StripTrailingSlash(directory);
    path = directory;
  } else {
    (void)CProcess::GetCurrentDir(path);  // if it is unknown, `path` is what the caller passed
  }
  path += "/Reports";
  return path.c_str();
}
