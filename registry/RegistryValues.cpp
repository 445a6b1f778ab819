// The part of CRegistry that reads, expands, enumerates and stores values.
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "debug/Debug.h"
#include "registry/Hives.h"
#include "registry/Registry.h"
#include "registry/RegistryText.h"
#include "registry/RegistryValue.h"

using qx::LockScope;
using qx::registry::OwnedValue;
using qx::registry::StoredBytes;
using qx::registry::TextOrNull;

namespace {

constexpr unsigned kAllTypes = 999;

// "%HOME%/x" => "/root/x"   "100%%" => "100%"   "a%b" => "ab"   "%UNSET%" => ""
std::string Expanded(std::string_view text) {
  std::string expanded;
  for (;;) {
    const std::size_t open = text.find('%');
    expanded += text.substr(0, open);
    if (open == std::string_view::npos) return expanded;
    text.remove_prefix(open + 1);
    const std::size_t close = text.find('%');
    if (close == std::string_view::npos) return expanded.append(text);
    const std::string name(text.substr(0, close));
    const char* value = name.empty() ? "%" : std::getenv(name.c_str());
    if (value != nullptr) expanded += value;
    text.remove_prefix(close + 1);
  }
}

OwnedValue NewValue(const unsigned char* data, unsigned size, unsigned type) {
  if (data == nullptr && size > 0) return {};
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  switch (static_cast<std::int32_t>(type)) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      return {static_cast<std::int32_t>(type), qx::registry::NewText(bytes)};
    case REG_BINARY:
      return {REG_BINARY, qx::registry::NewBlock(bytes)};
    case REG_DWORD: {
      std::int32_t number;
      if (size != sizeof number) return {};
      std::memcpy(&number, data, sizeof number);
      return OwnedValue(number);
    }
    default:
      return {};
  }
}

bool Store(CRegistryNode& key, const char* name, OwnedValue value) {
  const qx::registry::RootChangeScope change(key);
  OwnedValue displaced;
  {
    const LockScope lock(key.Lock());
    if (!key.Put(name, value.Get(), displaced.Place())) return false;
    (void)value.Release();
  }
  CRegistry::MIsDirty = true;  // again, because a save may have cleared the flag before the change
  if (displaced.IsPresent()) {
    change.Forget(displaced.Get());
    QX_TRACE(2, "CRegistry::SetValue oEntry = %p\n", displaced.Get().slot.pointer);
  }
  return true;
}

}  // namespace

unsigned CRegistry::GetValueSize(const char* name, CRegistryNode* node) {
  const CRegistryNode* key = KeyOr(node);
  if (key == nullptr || name == nullptr) return 0;
  const LockScope lock(key->Lock());
  const StrMapEntry* entry = key->Find(name);
  return entry != nullptr ? static_cast<unsigned>(StoredBytes(entry->value).size()) : 0;
}

// Size and bytes are read under one lock, so that no other thread can change the entry in between.
bool CRegistry::TakeStoredValue(const char* name, const CRegistryNode* key) {
  value_size_ = 0;
  if (key == nullptr || name == nullptr) return false;
  const LockScope lock(key->Lock());
  const StrMapEntry* entry = key->Find(name);
  if (entry == nullptr) return false;
  const std::string_view bytes = StoredBytes(entry->value);
  value_size_ = static_cast<std::uint32_t>(bytes.size());
  if (bytes.empty()) return false;
  std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[bytes.size()]);
  if (copy == nullptr) return false;
  std::memcpy(copy.get(), bytes.data(), bytes.size());
  value_ = std::move(copy);
  value_type_ = entry->value.type;
  return true;
}

bool CRegistry::ExpandValue() {
  try {
    const std::string expanded = Expanded(reinterpret_cast<const char*>(value_.get()));
    auto copy = std::make_unique<unsigned char[]>(expanded.size() + 1);
    std::memcpy(copy.get(), expanded.c_str(), expanded.size() + 1);
    value_ = std::move(copy);
    value_size_ = static_cast<std::uint32_t>(expanded.size());
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

unsigned char* CRegistry::GetValue(const char* name, CRegistryNode* node) {
  const bool is_taken = TakeStoredValue(name, KeyOr(node));
  QX_TRACE(4, "CRegistry::GetValue \"%s\" --> len %d\n", TextOrNull(name), static_cast<int>(value_size_));
  if (!is_taken) return nullptr;
  if (value_type_ == REG_EXPAND_SZ && expand_ != 0 && !ExpandValue()) return nullptr;
  return value_.get();
}

bool CRegistry::ReadString(const char* name, CRegistryNode* node) {
  return GetValue(name, node) != nullptr && (value_type_ == REG_SZ || value_type_ == REG_EXPAND_SZ);
}

// Quirk: only the size is checked, so a string of three characters is read as a number as well.
long CRegistry::QueryValue(unsigned* dword, const char* name, CRegistryNode* node) {
  if (KeyOr(node) == nullptr) return EINVAL;
  const unsigned char* bytes = GetValue(name, node);
  if (dword == nullptr || bytes == nullptr || value_size_ != sizeof *dword) return Fail(ENODATA);
  std::memcpy(dword, bytes, sizeof *dword);
  return Fail(0);
}

long CRegistry::QueryValue(std::string& out, const char* name, CRegistryNode* node) {
  if (KeyOr(node) == nullptr) return EINVAL;
  if (!ReadString(name, node)) return Fail(ENODATA);
  try {
    out = reinterpret_cast<const char*>(value_.get());
  } catch (const std::bad_alloc&) {
    return Fail(ENODATA);
  }
  return Fail(0);
}

long CRegistry::QueryValue(char* buf, const char* name, unsigned* count, CRegistryNode* node) {
  if (KeyOr(node) == nullptr) return EINVAL;
  if (!ReadString(name, node)) return Fail(ENODATA);
  if (count == nullptr) {
    QX_TRACE(1, "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
    return ERANGE;
  }
  const std::size_t length = std::strlen(reinterpret_cast<const char*>(value_.get()));
  if (buf == nullptr) {
    *count = static_cast<unsigned>(length + 1);
    return 0;
  }
  if (length >= *count) {
    std::memcpy(buf, value_.get(), *count);
    return Fail(ERANGE);
  }
  std::memcpy(buf, value_.get(), length + 1);
  *count = static_cast<unsigned>(length);
  return Fail(0);
}

long CRegistry::QueryValue(char* buf, const char* name, unsigned count, CRegistryNode* node) {
  return QueryValue(buf, name, &count, node);
}

void CRegistry::CopyEnumeratedData(const StrMapEntry& entry, unsigned char* data, unsigned& data_len) {
  if (data != nullptr && (entry.value.type == REG_SZ || entry.value.type == REG_EXPAND_SZ)) {
    (void)QueryValue(reinterpret_cast<char*>(data), entry.name, &data_len);  // the length shows the result
    return;
  }
  const bool fits = data != nullptr && entry.value.type == REG_DWORD && data_len >= sizeof entry.value.slot.number;
  data_len = fits ? sizeof entry.value.slot.number : 0;
  if (fits) std::memcpy(data, &entry.value.slot.number, sizeof entry.value.slot.number);
}

long CRegistry::EnumVal(char* name, unsigned* name_len, unsigned index, unsigned type, unsigned char* data,
                        unsigned* data_len) {
  if (current_key_ == nullptr || name == nullptr || name_len == nullptr) return EINVAL;
  const LockScope lock(current_key_->Lock());  // held while the data is read, so that it belongs to the name
  const auto is_requested = [type](const StrMapEntry& entry) {
    return type == kAllTypes ? !qx::registry::IsSubkeyEntry(entry) : static_cast<unsigned>(entry.value.type) == type;
  };
  const StrMapEntry* entry = qx::registry::NthEntry(*current_key_, index, is_requested);
  if (entry == nullptr) return ENODATA;
  qx::registry::CopyName(entry->name, name, *name_len);
  if (data_len != nullptr) CopyEnumeratedData(*entry, data, *data_len);
  value_index_next_ = index + 1;
  value_type_wanted_ = type;
  value_position_next_ = static_cast<std::uint32_t>(entry - current_key_->Entries().data()) + 1;
  return 0;
}

long CRegistry::EnumVal(char* name, unsigned name_len, unsigned index, unsigned type, unsigned char* data,
                        unsigned data_len) {
  return EnumVal(name, &name_len, index, type, data, &data_len);
}

bool CRegistry::SetValue(const char* name, const unsigned char* data, unsigned size, unsigned type,
                         CRegistryNode* node) {
  CRegistryNode* key = KeyOr(node);
  if (key == nullptr) return false;
  MIsDirty = true;  // Quirk: even after a refused call the next destroyed handle writes the tree.
  QX_TRACE(2, "CRegistry::SetValue \"%s\" %d %d\n", TextOrNull(name), static_cast<int>(size), static_cast<int>(type));
  OwnedValue value = NewValue(data, size, type);
  if (!value.IsPresent()) return false;
  if (name == nullptr) return true;
  return Store(*key, name, std::move(value));
}

long CRegistry::SetValue(const char* name, unsigned dword) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&dword);
  return SetValue(name, bytes, sizeof dword, REG_DWORD) ? 0 : EINVAL;
}

long CRegistry::SetValue(const char* name, const char* string) {
  if (string == nullptr) return EINVAL;
  const auto* bytes = reinterpret_cast<const unsigned char*>(string);
  return SetValue(name, bytes, static_cast<unsigned>(std::strlen(string)), REG_SZ) ? 0 : EINVAL;
}
