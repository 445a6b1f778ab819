// Random work against a plain model of the tree, with saves and loads in between.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::RegistryTest;

// A key as anybody would write it down first.
struct ModelKey {
  std::map<std::string, std::string> values;  // name => marker and data, as the file shows them
  std::map<std::string, ModelKey> keys;

  std::string Text() const {
    std::string text;
    for (const auto& [name, value] : values) text += name + value + "\n";
    for (const auto& [name, key] : keys) text += "[" + name + "]\n" + key.Text();
    return text + "\n";
  }
  bool HasValues() const {
    if (!values.empty()) return true;
    for (const auto& [name, key] : keys) {
      if (key.HasValues()) return true;
    }
    return false;
  }
};

class RegistryModel : public RegistryTest {
 protected:
  RegistryModel() : random_(qx::test::Seed("RegistryModel")) {
    Given("[HKEY_LOCAL_MACHINE]\nanchor=d=1\n\n\n");
    model_.keys["HKEY_LOCAL_MACHINE"].values["anchor"] = "=d=1";
  }

  std::size_t Below(std::size_t limit) { return random_() % limit; }
  std::string AnyName() { return std::string(1, "aBc"[Below(3)]) + (Below(2) == 0 ? "" : std::to_string(Below(4))); }
  std::vector<std::string> AnyPath() {
    std::vector<std::string> path(Below(4));
    for (std::string& name : path) name = AnyName();
    return path;
  }

  // The key at a path below HKEY_LOCAL_MACHINE, or null.
  ModelKey* Find(const std::vector<std::string>& path) {
    ModelKey* key = &model_.keys["HKEY_LOCAL_MACHINE"];
    for (const std::string& name : path) {
      const auto found = key->keys.find(name);
      if (found == key->keys.end()) return nullptr;
      key = &found->second;
    }
    return key;
  }
  static std::string Joined(const std::vector<std::string>& path) {
    std::string joined;
    for (const std::string& name : path) joined += (joined.empty() ? "" : "\\") + name;
    return joined;
  }

  void CreateOne() {
    const std::vector<std::string> path = AnyPath();
    CRegistry handle;
    const long result = handle.CreateKey(CRegistry::MLocalMachine, Joined(path).c_str(), false, 0);
    ModelKey* key = &model_.keys["HKEY_LOCAL_MACHINE"];
    for (const std::string& name : path) {
      if (key->values.count(name) != 0) {
        EXPECT_EQ(result, -1);
        return;
      }
      key = &key->keys[name];
    }
    EXPECT_EQ(result, 0);
  }

  void SetOne(CRegistry& handle, ModelKey& key) {
    const std::string name = AnyName();
    const auto number = static_cast<unsigned>(random_());
    const std::string text = "t=[" + std::to_string(number) + "]";
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    key.keys.erase(name);
    switch (Below(4)) {
      case 0:
        EXPECT_EQ(handle.SetValue(name.c_str(), number), 0);
        key.values[name] = "=d=" + std::to_string(static_cast<int>(number));
        break;
      case 1:
        EXPECT_EQ(handle.SetValue(name.c_str(), text.c_str()), 0);
        key.values[name] = "=s=" + text;
        break;
      case 2:
        EXPECT_TRUE(handle.SetValue(name.c_str(), bytes, static_cast<unsigned>(text.size()), REG_EXPAND_SZ));
        key.values[name] = "=es=" + text;
        break;
      default:
        EXPECT_TRUE(handle.SetValue(name.c_str(), bytes, 2, REG_BINARY));
        key.values[name] = "=b=74 3d ";
        break;
    }
  }

  void DeleteOne(CRegistry& handle, ModelKey& key) {
    const std::string name = AnyName();
    if (Below(2) == 0) {
      EXPECT_EQ(handle.DeleteValue(name.c_str()), 0);
      key.values.erase(name);
      key.keys.erase(name);
    } else {
      EXPECT_EQ(handle.DeleteKey(name.c_str()), key.keys.erase(name) == 1 ? 0 : 22);
    }
  }

  void ChangeOne() {
    const std::vector<std::string> path = AnyPath();
    ModelKey* key = Find(path);
    CRegistry handle(Joined(path).c_str(), CRegistry::MLocalMachine, 0);
    ASSERT_EQ(handle.Status(), key != nullptr ? 0 : -1) << Joined(path);
    if (key == nullptr) return;
    unsigned subkeys = 0;
    EXPECT_EQ(handle.NoOfSubKeys(&subkeys), 0);
    EXPECT_EQ(subkeys, key->keys.size());
    if (Below(3) == 0) {
      DeleteOne(handle, *key);
    } else {
      SetOne(handle, *key);
    }
  }

  std::mt19937_64 random_;
  ModelKey model_;
};

TEST_F(RegistryModel, ThousandsOfChangesWithSavesAndLoadsAgreeWithAPlainTree) {
  for (int step = 0; step < 6000; ++step) {
    // Most handles go without a save, or the test would be one of the disk.
    if (Below(100) != 0) {
      if (Below(3) == 0) {
        CreateOne();
      } else {
        ChangeOne();
      }
      if (Below(20) != 0) CRegistry::MIsDirty = false;
    } else {
      CRegistry::MIsDirty = true;
      { const CRegistry saving; }
      ASSERT_EQ(qx::test::ReadFile(File()), model_.Text());
      if (model_.HasValues()) {
        Restart();
        const CRegistry loading;
      }
    }
    ASSERT_EQ(Tree(), model_.Text()) << step;
  }
}

}  // namespace
