// Internal: keeps the five hive pointers correct while entries of the root change.
#pragma once

#include "registry/Registry.h"

namespace qx::registry {

// Sets the hive pointer to the key in `value`, if there is one, to null. Must be called before the key is destroyed.
// [lock held: CRegistry::MSpinlock]
void ForgetHive(const RegistryValue& value);

// Holds MSpinlock while an entry of the root is removed, so that no thread sets the pointer of a hive that is being
// destroyed. Changes in other keys do not wait for it.
class RootChangeScope {
 public:
  explicit RootChangeScope(const CRegistryNode& key) : is_root_(&key == &CRegistry::MRoot) {
    if (is_root_) CRegistry::MSpinlock.Lock();
  }
  ~RootChangeScope() {
    if (is_root_) CRegistry::MSpinlock.Unlock();
  }
  RootChangeScope(const RootChangeScope&) = delete;
  RootChangeScope& operator=(const RootChangeScope&) = delete;

  void Forget(const RegistryValue& value) const {
    if (is_root_) ForgetHive(value);
  }

 private:
  bool is_root_;
};

}  // namespace qx::registry
