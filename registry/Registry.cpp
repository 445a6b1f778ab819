// The part of CRegistry that loads and saves the tree, keeps the hive pointers, and makes and destroys handles.
#include "registry/Registry.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <utility>

#include "base/File.h"
#include "debug/Debug.h"
#include "registry/Hives.h"
#include "registry/RegistryFile.h"
#include "registry/RegistryPaths.h"
#include "registry/RegistryValue.h"
#include "registry/TreeReader.h"
#include "registry/TreeWriter.h"
#include "registry/Uncancellable.h"

using qx::LockScope;
using qx::registry::NodeOf;
using qx::registry::Reading;

// The class has two smart pointers. For such a class the standard does not require `offsetof`, but both compilers
// support it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
struct CRegistry::Layout {
  static_assert(sizeof(MIsSetup) == 1 && sizeof(MIsDirty) == 1, "the two flags are bytes");
  static_assert(offsetof(CRegistry, status_) == 0);
  static_assert(offsetof(CRegistry, value_size_) == 4);
  static_assert(offsetof(CRegistry, value_type_) == 8);
  static_assert(offsetof(CRegistry, expand_) == 12);
  static_assert(offsetof(CRegistry, key_index_next_) == 16);
  static_assert(offsetof(CRegistry, value_index_next_) == 24);
  static_assert(offsetof(CRegistry, value_position_next_) == 32);
  static_assert(offsetof(CRegistry, current_key_) == 40);
  static_assert(offsetof(CRegistry, value_) == 48);
  static_assert(offsetof(CRegistry, key_path_) == 56);
  static_assert(sizeof(CRegistry) == 64);
};
#pragma GCC diagnostic pop

// These objects are constructed directly after Debug (priority 101) and destroyed directly before it, because the
// destruction of the root still traces. They are constructed before all other static objects, so that the constructor
// and destructor of any of these may use the registry.
__attribute__((init_priority(102))) CCriticalSection CRegistry::MSpinlock;
__attribute__((init_priority(102))) std::string CRegistry::MPRegistry;
__attribute__((init_priority(102))) std::string CRegistry::MPRegistryOld;
__attribute__((init_priority(102))) std::string CRegistry::MPRegistryTemp;
__attribute__((init_priority(102))) std::string CRegistry::MPRegistryDefault;
__attribute__((init_priority(102))) CRegistryNode CRegistry::MRoot;

CRegistryNode* CRegistry::MLocalMachine = nullptr;
CRegistryNode* CRegistry::MCurrentUser = nullptr;
CRegistryNode* CRegistry::MUsers = nullptr;
CRegistryNode* CRegistry::MClassesRoot = nullptr;
CRegistryNode* CRegistry::MCurrentConfig = nullptr;
constinit std::atomic<bool> CRegistry::MIsSetup{false};
constinit std::atomic<bool> CRegistry::MIsDirty{false};

namespace {

struct Hive {
  const char* name;
  CRegistryNode** pointer;
};

constexpr Hive kHives[] = {
    {"HKEY_LOCAL_MACHINE", &CRegistry::MLocalMachine},
    {"HKEY_CURRENT_USER", &CRegistry::MCurrentUser},
    {"HKEY_USERS", &CRegistry::MUsers},
    {"HKEY_CLASSES_ROOT", &CRegistry::MClassesRoot},
    {"HKEY_CURRENT_CONFIG", &CRegistry::MCurrentConfig},
};

// These two variables are used only under MSpinlock. Until a load has read the whole file `registry`, this file may
// have content that no other file has, so the first save keeps a copy of it. MIsSetup is not enough to show this: the
// load may have used another one of the three files.
constinit bool registry_is_unread = true;
constinit const char* files_directory = qx::registry::kSystemDirectory;

// The key of a hive; null if its entry is missing or not a subkey.
CRegistryNode* NodeOfHive(const char* name) {
  const LockScope lock(CRegistry::MRoot.Lock());
  const StrMapEntry* entry = CRegistry::MRoot.Find(name);
  return entry != nullptr ? NodeOf(entry->value) : nullptr;
}

void BuildPaths() {
  const std::string directory = files_directory;
  CRegistry::MPRegistry = directory + "/registry";
  CRegistry::MPRegistryOld = directory + "/registry.old";
  CRegistry::MPRegistryTemp = directory + "/registry.new";
  CRegistry::MPRegistryDefault = directory + "/registry.default";
}

Reading ReadTreeFile(const char* path, CRegistryNode& node) {
  const qx::file::Descriptor file = qx::registry::OpenToRead(path);
  if (!file.IsOpen()) {
    QX_TRACE(1, "CRegistry: WARNING: Could not open \"%s\"\n", path);
    return Reading::kFailed;
  }
  if (qx::registry::SizeOf(file) == 0) {
    QX_TRACE(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path);
    return Reading::kFailed;
  }
  qx::registry::LineReader lines(qx::registry::BytesOf(file));
  const Reading reading = qx::registry::RestoreFrom(lines, node);
  if (reading == Reading::kFailed) {
    QX_TRACE(1, "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this file\n", path);
  }
  return reading;
}

bool LoadFirstGoodFile() {
  const char* path = CRegistry::MPRegistry.c_str();
  const Reading reading = ReadTreeFile(path, CRegistry::MRoot);
  registry_is_unread = reading != Reading::kWhole;
  if (reading != Reading::kFailed) return true;
  QX_TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n", path);
  path = CRegistry::MPRegistryOld.c_str();
  if (CRegistry::ReadTree(path, CRegistry::MRoot)) return true;
  QX_TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n", path);
  path = CRegistry::MPRegistryDefault.c_str();
  if (CRegistry::ReadTree(path, CRegistry::MRoot)) return true;
  QX_TRACE(1, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n", path);
  return false;
}

// Other threads read the pointers without a lock, so a pointer that is correct is not written again.
void SetHivePointer(const Hive& hive) {
  CRegistryNode* key = NodeOfHive(hive.name);
  if (*hive.pointer != key) *hive.pointer = key;
}

void SetHivePointers() {
  for (const Hive& hive : kHives) SetHivePointer(hive);
}

// After a failed load the hive pointers stay, except that of a hive that the file has replaced by a value.
void ClearLostHivePointers() {
  for (const Hive& hive : kHives) {
    if (*hive.pointer != nullptr) SetHivePointer(hive);
  }
}

// An estimate of the length of the new file: a little more than the old file has, but at most 64 MiB.
std::size_t BytesExpected() {
  constexpr std::size_t kMargin = 4096;
  constexpr std::size_t kMax = 64UL << 20;
  return std::min(qx::registry::BytesAt(CRegistry::MPRegistry.c_str()) + kMargin, kMax);
}

bool WriteNewFile() {
  const char* path = CRegistry::MPRegistryTemp.c_str();
  qx::file::Descriptor file = qx::registry::CreateToWrite(path);
  if (!file.IsOpen()) return false;
  std::string text;
  if (qx::registry::FormatTree(CRegistry::MRoot, text, BytesExpected()) && qx::registry::WriteThrough(file, text))
    return true;
  (void)qx::file::Remove(path);  // a file that is left is never read, and the next save removes it
  return false;
}

// The new file and the old one exchange their names in one step, and then the old one becomes the backup. So at every
// moment there is a good file named `registry`, or an old one that was damaged before; and a damaged file never
// replaces the backup before the new file is in use. Returns 0 or the error number of the exchange.
int ExchangeFiles(const char* path) {
  const char* temporary = CRegistry::MPRegistryTemp.c_str();
  if (const int error = qx::file::Exchange(temporary, path); error != 0) return error;
  // If the old file cannot become the backup, it is removed, as if the new file had been renamed over it.
  if (qx::file::Rename(temporary, CRegistry::MPRegistryOld.c_str()) != 0) (void)qx::file::Remove(temporary);
  return 0;
}

// For a file system that cannot exchange names.
// Quirk: there is no registry file between the two renames. After a crash at this moment, the next load uses the
// backup.
void RenameFiles(const char* path) {
  (void)qx::file::Rename(path, CRegistry::MPRegistryOld.c_str());
  (void)qx::file::Rename(CRegistry::MPRegistryTemp.c_str(), path);
}

// The results are not checked: a save that reaches this point counts as done.
void ReplaceRegistry(const char* path) {
  if (!qx::registry::MayHoldBytes(path)) {
    (void)qx::file::Rename(CRegistry::MPRegistryTemp.c_str(), path);
    return;
  }
  // ENOENT: another process has moved or removed one of the two files. If it is the new one, the old one must stay.
  const int error = ExchangeFiles(path);
  if (error == ENOENT) (void)qx::file::Rename(CRegistry::MPRegistryTemp.c_str(), path);
  if (error != 0 && error != ENOENT) RenameFiles(path);
}

void RenameNewFile() {
  const char* path = CRegistry::MPRegistry.c_str();
  if (std::exchange(registry_is_unread, false) && qx::registry::MayHoldBytes(path)) qx::registry::KeepUnread(path);
  ReplaceRegistry(path);
  qx::registry::SyncDirectoryOf(path);
}

// If no load has set the hive's pointer, an existing key of this name stays, because other handles may use it.
void PutHiveEntry(const Hive& hive) {
  if (*hive.pointer == nullptr && NodeOfHive(hive.name) != nullptr) return;
  RegistryValue value;
  value.type = REG_NODE;
  value.slot.pointer = *hive.pointer;
  RegistryValue displaced;
  (void)CRegistry::MRoot.Put(hive.name, value, displaced);  // if memory runs out, the next handle tries again
  if (displaced.type != REG_NODE) qx::registry::FreeValue(displaced);
}

void EnsureHiveEntries() {
  const LockScope class_lock(CRegistry::MSpinlock);
  const LockScope root_lock(CRegistry::MRoot.Lock());
  if (NodeOfHive("HKEY_LOCAL_MACHINE") != nullptr) return;
  QX_TRACE(1, "CRegistry::InitClass() : re-initialize the registry-tree\n");
  for (const Hive& hive : kHives) PutHiveEntry(hive);
}

}  // namespace

void qx::registry::ResetRegistry(const char* directory) {
  const LockScope lock(CRegistry::MSpinlock);
  CRegistry::MRoot.Clear();
  for (const Hive& hive : kHives) *hive.pointer = nullptr;
  for (std::string* path :
       {&CRegistry::MPRegistry, &CRegistry::MPRegistryOld, &CRegistry::MPRegistryTemp, &CRegistry::MPRegistryDefault}) {
    path->clear();
  }
  CRegistry::MIsSetup = false;
  CRegistry::MIsDirty = false;
  registry_is_unread = true;
  files_directory = directory != nullptr ? directory : kSystemDirectory;
}

void qx::registry::ForgetHive(const RegistryValue& value) {
  for (const Hive& hive : kHives) {
    if (*hive.pointer != nullptr && *hive.pointer == NodeOf(value)) *hive.pointer = nullptr;
  }
}

bool CRegistry::ReadTree(const char* path, CRegistryNode& node) {
  if (path == nullptr) {
    QX_TRACE(1, "CRegistry: ERROR: Empty file path");
    return false;
  }
  return ReadTreeFile(path, node) != Reading::kFailed;
}

void CRegistry::SetupTree(bool force_setup) {
  const LockScope lock(MSpinlock);
  if (MIsSetup && !force_setup) return;
  QX_TRACE(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", force_setup ? 1 : 0,
           MIsSetup ? 1 : 0, MIsDirty ? 1 : 0);
  try {
    BuildPaths();
    if (!LoadFirstGoodFile()) {
      ClearLostHivePointers();
      return;
    }
    SetHivePointers();
  } catch (const std::exception&) {  // every exception, but not the unwinding of a cancelled thread
    QX_TRACE(2, "CRegistry: SetupTree(): ## ERROR during Setup\n");
  }
  MIsSetup = true;
}

void CRegistry::SaveTree() {
  if (!MIsDirty) return;
  const qx::registry::UncancellableScope no_cancellation;
  const LockScope lock(MSpinlock);
  // The flag is cleared before the tree is written: a change that is too late for the file sets it again.
  if (!MIsDirty.exchange(false)) return;
  if (!WriteNewFile()) {
    QX_TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", MPRegistryTemp.c_str());
    return;
  }
  RenameNewFile();
  QX_TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", MPRegistryTemp.c_str(), MPRegistry.c_str());
}

CRegistry::CRegistry() { InitClass(); }

CRegistry::CRegistry(CRegistryNode*& key) {
  InitClass();
  current_key_ = key;
}

CRegistry::CRegistry(const char* path, CRegistryNode*& key, int access) {
  InitClass();
  (void)Open(path, key, access);  // after a failure the handle has no key, which every call reports
}

CRegistry::CRegistry(CRegistry& other) { CopyHandle(other); }

CRegistry& CRegistry::operator=(CRegistry& other) {
  if (this != &other) CopyHandle(other);
  return *this;
}

CRegistry::~CRegistry() { FreeClass(); }

// The value buffer stays, because a value that GetValue returned before an assignment may still be in use.
void CRegistry::InitClass() {
  status_ = 0;
  value_size_ = 0;
  value_type_ = 0;
  expand_ = 1;
  key_index_next_ = 0;
  key_position_next_ = 0;
  value_index_next_ = 0;
  value_type_wanted_ = 0;
  value_position_next_ = 0;
  current_key_ = nullptr;
  key_path_.reset();
  SetupTree(false);
  EnsureHiveEntries();
}

void CRegistry::FreeClass() {
  value_.reset();
  key_path_.reset();
  SaveTree();
}

void CRegistry::CopyHandle(const CRegistry& other) {
  InitClass();
  current_key_ = other.current_key_;
  if (other.key_path_ != nullptr) key_path_.reset(qx::registry::NewText(other.key_path_.get()));
}

CRegistryNode* CRegistry::KeepKeyHandle() { return std::exchange(current_key_, nullptr); }

bool CRegistry::Close() { return KeepKeyHandle() != nullptr; }
