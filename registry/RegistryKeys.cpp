// The part of CRegistry that works on keys: paths, creation, pointer keys, enumeration of subkeys, deletion.
#include <algorithm>
#include <cstring>
#include <new>

#include "debug/Debug.h"
#include "registry/Hives.h"
#include "registry/Registry.h"
#include "registry/RegistryNode.h"
#include "registry/RegistryText.h"
#include "registry/RegistryValue.h"

using qx::LockScope;
using qx::registry::NodeOf;
using qx::registry::OwnedValue;
using qx::registry::TextOrNull;

namespace {

constexpr const char* kSeparators = "\\/";

// The suite's products keep pointers to their own keys here, each under its own name.
constexpr const char* kPointerKey = "SYSTEM\\CurrentControlSet\\Control\\UUID\\C3681B60-0D26-11D3-8319-00A0C9B61E25";

CRegistryNode* Subkey(const CRegistryNode& key, std::string_view name) {
  const LockScope lock(key.Lock());
  const StrMapEntry* entry = key.Find(name);
  return entry != nullptr ? NodeOf(entry->value) : nullptr;
}

// Search and creation are one step under the lock: otherwise two threads that create the same key could get two keys.
// An entry without a value (a hive that the file does not have) gets a key. Null if a value has this name, or if memory
// runs out.
CRegistryNode* SubkeyOrNew(CRegistryNode& key, std::string_view name) {
  const LockScope lock(key.Lock());
  StrMapEntry* entry = key.Find(name);
  if (entry != nullptr && entry->value.IsPresent()) return NodeOf(entry->value);

  CRegistry::MIsDirty = true;
  OwnedValue created(REG_NODE, new (std::nothrow) CRegistryNode);
  CRegistryNode* subkey = NodeOf(created.Get());
  if (subkey == nullptr) return nullptr;
  if (entry != nullptr) {
    entry->value = created.Release();
  } else {
    RegistryValue displaced;
    if (!key.Put(name, created.Get(), displaced)) return nullptr;
    (void)created.Release();
  }
  CRegistry::MIsDirty = true;  // again, because a save may have cleared the flag before the change
  return subkey;
}

// Removes an entry from `key` and returns its value. Returns an empty value if there is no such entry, or if
// `subkeys_only` is set and the entry is not a subkey.
OwnedValue TakeOut(CRegistryNode& key, const char* name, bool subkeys_only) {
  const LockScope lock(key.Lock());
  StrMapEntry* entry = key.Find(name);
  if (entry == nullptr || (subkeys_only && NodeOf(entry->value) == nullptr)) return {};
  return OwnedValue(key.Remove(entry));
}

}  // namespace

long CRegistry::Fail(long status) {
  status_ = static_cast<std::int32_t>(status);
  return status;
}

long CRegistry::FailOpen() {
  current_key_ = nullptr;
  key_path_.reset();
  return Fail(-1);
}

// The walk takes the locks of the keys one after another, never two at once.
//   ""    => start    "A\B/C" => start, A, B, C    "A\" => start, A    "A\\B" => start, A, the key without a name, B
CRegistryNode* CRegistry::WalkKeyPath(CRegistryNode* start) {
  CRegistryNode* key = start;
  char* rest = key_path_.get();
  while (*rest != '\0') {
    const std::size_t length = std::strcspn(rest, kSeparators);
    key = Subkey(*key, {rest, length});
    if (key == nullptr) return nullptr;
    rest += length;
    if (*rest != '\0') *rest++ = '/';
  }
  return key;
}

long CRegistry::Open(const char* path, CRegistryNode* key, int) {
  status_ = 0;
  QX_TRACE(2, "\nCRegistry::Open \"%s\", hKey = %d\n", TextOrNull(path),
           static_cast<int>(reinterpret_cast<std::uintptr_t>(key)));
  if (path == nullptr) return FailOpen();
  key_path_.reset(qx::registry::NewText(path));
  if (key_path_ == nullptr) return FailOpen();
  current_key_ = WalkKeyPath(key != nullptr ? key : &MRoot);
  return current_key_ != nullptr ? 0 : FailOpen();
}

long CRegistry::CreateKey(CRegistryNode* key, const char* path, bool, int) {
  QX_TRACE(2, "CRegistry::CreateKey \"%s\"\n", TextOrNull(path));
  CRegistryNode* created = KeyOr(key);
  if (created == nullptr || path == nullptr) return -1;
  while (*path != '\0') {
    const std::size_t length = std::strcspn(path, kSeparators);
    created = SubkeyOrNew(*created, {path, length});
    if (created == nullptr) return -1;
    path += length;
    if (*path != '\0') ++path;
  }
  current_key_ = created;
  return 0;
}

long CRegistry::OpenPointerKey(const char* pointer_key, const char* value_name, CRegistryNode* key, int access) {
  QX_TRACE(2, "CRegistry::OpenPointer \"%s\"\n", TextOrNull(pointer_key));
  if (Open(pointer_key, key, access) != 0) return -1;
  const bool is_string = ReadString(value_name, nullptr);
  (void)Close();
  status_ = -1;
  if (!is_string) return -1;
  auto* target = reinterpret_cast<char*>(value_.get());
  char* separator = std::strpbrk(target, kSeparators);
  if (separator == nullptr) return -1;
  // hkey_local_machine\SOFTWARE => HKEY_LOCAL_MACHINE/SOFTWARE
  std::transform(target, separator, target, qx::registry::UpperCase);
  *separator = '/';
  return Open(target, nullptr, -1);
}

long CRegistry::OpenUUIDPointer(const char* value_name, CRegistryNode* key, int access, const char*, bool) {
  return OpenPointerKey(kPointerKey, value_name, key, access);
}

bool CRegistry::GetProductRegistryRoot(std::string& out, const char* value_name) {
  CRegistry handle;
  const auto read = [&] {
    return handle.Open(kPointerKey, MLocalMachine, 0) == 0 && handle.QueryValue(out, value_name) == 0;
  };
  return read() || read();  // NOLINT(misc-redundant-expression): the second one is another attempt
}

long CRegistry::NoOfSubKeys(unsigned* count) {
  if (count == nullptr) return EINVAL;
  *count = 0;
  if (current_key_ == nullptr) return EINVAL;
  const LockScope lock(current_key_->Lock());
  const auto entries = current_key_->Entries();
  *count = static_cast<unsigned>(std::count_if(entries.begin(), entries.end(), qx::registry::IsSubkeyEntry));
  return 0;
}

long CRegistry::EnumKey(char* name, unsigned* name_len, unsigned index, char*, unsigned* cls_len) {
  if (current_key_ == nullptr || name == nullptr || name_len == nullptr) return EINVAL;
  const LockScope lock(current_key_->Lock());
  const StrMapEntry* entry = qx::registry::NthEntry(*current_key_, index, qx::registry::IsSubkeyEntry);
  if (entry == nullptr) return ENODATA;
  qx::registry::CopyName(entry->name, name, *name_len);
  if (cls_len != nullptr) *cls_len = 0;
  key_index_next_ = index + 1;
  key_position_next_ = static_cast<std::uint32_t>(entry - current_key_->Entries().data()) + 1;
  return 0;
}

long CRegistry::EnumKey(char* name, unsigned name_len, unsigned index, char* cls, unsigned cls_len) {
  return EnumKey(name, &name_len, index, cls, &cls_len);
}

long CRegistry::DeleteKey(const char* name) {
  QX_TRACE(2, "CRegistry::DeleteKey \"%s\"\n", TextOrNull(name));
  if (current_key_ == nullptr || name == nullptr) return EINVAL;
  const qx::registry::RootChangeScope change(*current_key_);
  const OwnedValue removed = TakeOut(*current_key_, name, true);
  if (!removed.IsPresent()) return EINVAL;
  MIsDirty = true;
  change.Forget(removed.Get());
  return 0;
}

long CRegistry::DeleteValue(const char* name) {
  QX_TRACE(2, "CRegistry::DeleteValue \"%s\"\n", TextOrNull(name));
  if (current_key_ == nullptr) return EINVAL;
  MIsDirty = true;
  if (name == nullptr) return EINVAL;
  const qx::registry::RootChangeScope change(*current_key_);
  const OwnedValue removed = TakeOut(*current_key_, name, false);
  MIsDirty = true;
  change.Forget(removed.Get());
  return 0;
}
