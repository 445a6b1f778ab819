// The registry: one tree of keys in each process, handles on its keys, and functions that load the tree from its file
// and save it (docs/registry-file.md).
//
// The first handle loads the tree. When a handle is destroyed, it writes the tree if something has changed. A process
// does not see the changes of another one, and its save replaces the other's file.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "registry/RegistryNode.h"

// A handle on one key.
//
// Threads: many handles may be used by many threads; one handle belongs to one thread at a time. Locks are taken in the
// order MSpinlock, MRoot, child.
// Owns: the value buffer and its copy of the path. Keys belong to the tree: a current key stays usable until it, or a
// key above it, is deleted or replaced.
// Failure: result codes. 0: success; -1: failure of Open, CreateKey or OpenPointerKey; 22: no current key or a missing
// argument; 61: no such value, a value of another type, or an index after the last entry; 34: the caller's buffer is
// too small. Nothing throws. Paths: names separated by "\" or "/"; a path may end with a separator. Names are
// case-sensitive. An empty name between two separators is a name.
class CRegistry {
 public:
  // A handle without a key. [any thread]
  CRegistry();
  // A handle on `key`. The pointer is read after the tree was loaded, so MLocalMachine and the other hives may be
  // passed even to the first handle. [any thread]
  explicit CRegistry(CRegistryNode*& key);
  // A handle on the key that Open finds, or without a key. [any thread]
  CRegistry(const char* path, CRegistryNode*& key, int access);
  // The copy has the same current key and a copy of the key path, but not the value buffer. If a handle is assigned to,
  // a value that it has read stays valid until its next read. [owning thread]
  CRegistry(CRegistry& other);
  CRegistry& operator=(CRegistry& other);
  // Writes the tree if it has changed. [any thread]
  ~CRegistry();

  // Resets the handle, and loads the tree if no load has succeeded yet. If the root has no local machine hive, adds
  // missing entries of the five hives to the root; an added entry has no key. Every constructor calls it. [owning
  // thread]
  void InitClass();
  // Frees what the handle owns, and writes the tree if it has changed. The destructor calls it. [owning thread]
  void FreeClass();

  // Returns the current key and drops it from the handle. [owning thread]
  CRegistryNode* KeepKeyHandle();
  // Drops the current key; true if there was one. [owning thread]
  bool Close();

  // Makes the key at `path` below `key` (null: the root, whose subkeys are the hives) the current one. An empty path is
  // `key` itself. 0, or -1 with no current key. `access` is ignored, here and below. [owning thread]
  long Open(const char* path, CRegistryNode* key, int access);
  // Creates the missing keys of `path` below `key` (null: the current key), and makes the last one the current key. 0,
  // or -1 with the current key unchanged if a name on the path is that of a value. [owning thread]
  long CreateKey(CRegistryNode* key, const char* path, bool, int access);
  // Opens a key through a pointer: the string value `value_name` of the key `pointer_key` is the full path of the key
  // to open. The path begins with a hive, in upper or lower case. 0, or -1 with no current key. [owning thread]
  long OpenPointerKey(const char* pointer_key, const char* value_name, CRegistryNode* key, int access);
  // OpenPointerKey with the key in which the suite's products leave their pointers. [owning thread]
  long OpenUUIDPointer(const char* value_name, CRegistryNode* key, int access, const char*, bool);
  // The string `value_name` of the products' pointer key below MLocalMachine; tried twice. [any thread]
  [[nodiscard]] static bool GetProductRegistryRoot(std::string& out, const char* value_name);

  // Sets `count` to the number of subkeys of the current key. Returns 0 or 22. [owning thread]
  long NoOfSubKeys(unsigned* count);
  // Copies the name of subkey `index`, counted from 0 in the order of names: at most *name_len - 1 bytes and a NUL.
  // *name_len becomes the number of bytes without the NUL; if it is 0, nothing is written. *cls_len becomes 0; `cls` is
  // never written. Returns 0, 22 or 61. [owning thread]
  long EnumKey(char* name, unsigned* name_len, unsigned index, char* cls, unsigned* cls_len);
  long EnumKey(char* name, unsigned name_len, unsigned index, char* cls, unsigned cls_len);
  // Destroys a direct subkey with everything below it. Returns 0, or 22 if there is no such subkey. [owning thread]
  long DeleteKey(const char* name);

  // In the functions below, a null `node` means the current key.

  // The number of bytes of a value: for a string with its NUL and without expansion; 0 if there is no value or no byte.
  // [owning thread]
  unsigned GetValueSize(const char* name, CRegistryNode* node = nullptr);
  // The value's bytes: a string with its NUL, a block, or the 4 bytes of a number in host order; null when the size is
  // 0. %NAME% in a REG_EXPAND_SZ is replaced by the environment variable (nothing if unset), %% by %, a lone % is
  // dropped; ValueSize() is then the length without the NUL. Valid until the next read through this handle.
  // [owning thread]
  unsigned char* GetValue(const char* name, CRegistryNode* node = nullptr);
  // Reads a value of exactly 4 bytes as a number, whatever its type. 0, 22 or 61; a null `dword` also returns 61.
  // [owning thread]
  long QueryValue(unsigned* dword, const char* name, CRegistryNode* node = nullptr);
  // Reads a string. Returns 0, 22 or 61. [owning thread]
  long QueryValue(std::string& out, const char* name, CRegistryNode* node = nullptr);
  // Reads a string into `buf` of *count bytes. Returns 0: *count becomes the length without the NUL. 34: string and NUL
  // do not fit; `buf` has the first *count bytes, without a NUL. If `buf` is null, *count becomes the needed number of
  // bytes. 22 and 61 as above. [owning thread]
  long QueryValue(char* buf, const char* name, unsigned* count, CRegistryNode* node = nullptr);
  long QueryValue(char* buf, const char* name, unsigned count, CRegistryNode* node = nullptr);
  // Returns the value `index` among those of `type` (999: all), in the order of names, with its name as in EnumKey. If
  // `data` and `data_len` are not null, they get a string as from QueryValue, whose result is ignored, or a number if 4
  // bytes fit. Otherwise, and for other types, *data_len is 0. The result is 0, 22 or 61. [owning thread]
  long EnumVal(char* name, unsigned* name_len, unsigned index, unsigned type, unsigned char* data, unsigned* data_len);
  long EnumVal(char* name, unsigned name_len, unsigned index, unsigned type, unsigned char* data, unsigned data_len);
  // Stores `size` bytes (a string without its NUL) under `name`, and replaces the entry of this name, even a subkey.
  // With a null name, stores nothing and returns true. False: no key, an unknown type, a number whose size is not 4, or
  // null data with a size. Even after a refused call, the next handle that is destroyed writes the tree. [owning
  // thread]
  bool SetValue(const char* name, const unsigned char* data, unsigned size, unsigned type,
                CRegistryNode* node = nullptr);
  // Stores a value in the current key, as REG_DWORD or REG_SZ: 0 or 22. [owning thread]
  long SetValue(const char* name, unsigned dword);
  long SetValue(const char* name, const char* string);
  // Removes an entry of the current key; a subkey with everything below it. Returns 0 even if there was no entry, or
  // 22. [owning thread]
  long DeleteValue(const char* name);

  // The state of the handle after its last calls. [owning thread]
  [[nodiscard]] long Status() const { return status_; }
  [[nodiscard]] unsigned ValueSize() const { return value_size_; }
  [[nodiscard]] int ValueType() const { return value_type_; }
  [[nodiscard]] CRegistryNode* CurrentKey() const { return current_key_; }
  // The path of the last Open, with every separator as "/"; null after a failed Open. [owning thread]
  [[nodiscard]] const char* KeyPath() const { return key_path_.get(); }
  // Sets whether GetValue expands REG_EXPAND_SZ. The default is true. [owning thread]
  void SetExpand(bool expand) { expand_ = expand ? 1 : 0; }

  // Reads the file at `path` and merges its entries into `node` by name. False, with a line in the trace, if the file
  // is missing, empty or without any value. [any thread]
  [[nodiscard]] static bool ReadTree(const char* path, CRegistryNode& node);
  // Loads the tree from the first of these files that can be read: the registry file, its backup, the default file.
  // Does nothing if a load has succeeded before and `force_setup` is false. [any thread]
  static void SetupTree(bool force_setup);
  // Writes the tree to the registry file if it has changed. [any thread]
  static void SaveTree();

  // The state of the class, once in each process. The pointer of a hive that the tree does not have is null. These
  // pointers and the paths change only under MSpinlock.
  static CRegistryNode MRoot;
  static CRegistryNode* MLocalMachine;
  static CRegistryNode* MCurrentUser;
  static CRegistryNode* MUsers;
  static CRegistryNode* MClassesRoot;
  static CRegistryNode* MCurrentConfig;
  // Read without a lock, to return early if there is nothing to load or save. Loads and saves themselves hold
  // MSpinlock.
  static std::atomic<bool> MIsSetup;
  static std::atomic<bool> MIsDirty;
  static CCriticalSection MSpinlock;
  static std::string MPRegistry;
  static std::string MPRegistryOld;
  static std::string MPRegistryTemp;
  static std::string MPRegistryDefault;

 private:
  struct Layout;

  [[nodiscard]] CRegistryNode* KeyOr(CRegistryNode* node) const { return node != nullptr ? node : current_key_; }
  long Fail(long status);
  long FailOpen();
  [[nodiscard]] CRegistryNode* WalkKeyPath(CRegistryNode* start);
  [[nodiscard]] bool TakeStoredValue(const char* name, const CRegistryNode* key);
  [[nodiscard]] bool ExpandValue();
  [[nodiscard]] bool ReadString(const char* name, CRegistryNode* node);
  void CopyEnumeratedData(const StrMapEntry& entry, unsigned char* data, unsigned& data_len);
  void CopyHandle(const CRegistry& other);

  // Order is interface.
  std::int32_t status_ = 0;
  std::uint32_t value_size_ = 0;
  std::int32_t value_type_ = 0;
  std::uint32_t expand_ = 1;
  // One after the index of the last enumeration. Nothing reads it: each call passes its own index.
  std::uint32_t key_index_next_ = 0;
  std::uint32_t key_position_next_ = 0;
  std::uint32_t value_index_next_ = 0;
  std::uint32_t value_type_wanted_ = 0;
  std::uint32_t value_position_next_ = 0;
  CRegistryNode* current_key_ = nullptr;
  std::unique_ptr<unsigned char[]> value_;
  std::unique_ptr<char[]> key_path_;
};
