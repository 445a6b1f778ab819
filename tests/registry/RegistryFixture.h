// Helpers for the registry tests: registries in a private directory, and keys as texts.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "registry/Registry.h"
#include "registry/RegistryPaths.h"
#include "tests/support/Support.h"

namespace qx::test {

// The content of a key as dumpNode writes it.
std::string Dump(const CRegistryNode& key);
// The result of restoreNode for these bytes.
bool Restore(CRegistryNode& key, std::string_view text);
// The dump of a new key after it has read these bytes. The result of the read is ignored.
std::string Reread(std::string_view text);

// True while any thread, including this one, holds the key's lock.
bool IsHeld(const CRegistryNode& key);

// The tree of the eight-line example.
inline constexpr std::string_view kExample =
    "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nName=s=some text\nCount=d=-5\nBlob=b=0a ff \n\n\n\n";

// Every test starts with an empty tree that has never been loaded and with its own directory of registry files.
class RegistryTest : public testing::Test {
 protected:
  RegistryTest();
  ~RegistryTest() override { registry::ResetRegistry(nullptr); }

  [[nodiscard]] std::string File(std::string_view name = "registry") const { return dir_.File(name); }
  void Given(std::string_view text, std::string_view name = "registry") const { WriteFile(File(name), text); }
  // The whole loaded tree as the text of a file.
  [[nodiscard]] static std::string Tree() { return Dump(CRegistry::MRoot); }
  // Has the same effect as the end of this process and the start of another one.
  void Restart() const { registry::ResetRegistry(dir_.Path().c_str()); }
  // The key below HKEY_LOCAL_MACHINE that most tests work on.
  static CRegistryNode* Software() { return CRegistry("SOFTWARE", CRegistry::MLocalMachine, 0).KeepKeyHandle(); }

 private:
  // The directory is in memory if possible; otherwise every save would wait for the disk.
  ScopedEnv place_;
  TempDir dir_;
};

}  // namespace qx::test
