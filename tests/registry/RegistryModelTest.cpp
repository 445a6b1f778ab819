// Compares random operations, with saves and loads in between, with a plain model of the tree.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "tests/registry/PlainTree.h"
#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::PlainKey;
using qx::test::RegistryTest;

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
  PlainKey* Find(const std::vector<std::string>& path) {
    PlainKey* key = &model_.keys["HKEY_LOCAL_MACHINE"];
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
    PlainKey* key = &model_.keys["HKEY_LOCAL_MACHINE"];
    for (const std::string& name : path) {
      if (key->values.count(name) != 0) {
        EXPECT_EQ(result, -1);
        return;
      }
      key = &key->keys[name];
    }
    EXPECT_EQ(result, 0);
  }

  void SetOne(CRegistry& handle, PlainKey& key) {
    const std::string name = AnyName();
    const auto number = static_cast<unsigned>(random_());
    const std::string text = "t=[" + std::to_string(number) + "]";
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    switch (Below(4)) {
      case 0:
        EXPECT_EQ(handle.SetValue(name.c_str(), number), 0);
        key.Set(name, "=d=" + std::to_string(static_cast<int>(number)));
        break;
      case 1:
        EXPECT_EQ(handle.SetValue(name.c_str(), text.c_str()), 0);
        key.Set(name, "=s=" + text);
        break;
      case 2:
        EXPECT_TRUE(handle.SetValue(name.c_str(), bytes, static_cast<unsigned>(text.size()), REG_EXPAND_SZ));
        key.Set(name, "=es=" + text);
        break;
      default:
        EXPECT_TRUE(handle.SetValue(name.c_str(), bytes, 2, REG_BINARY));
        key.Set(name, "=b=74 3d ");
        break;
    }
  }

  void DeleteOne(CRegistry& handle, PlainKey& key) {
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
    PlainKey* key = Find(path);
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
  PlainKey model_;
};

TEST_F(RegistryModel, ThousandsOfChangesWithSavesAndLoadsAgreeWithAPlainTree) {
  for (int step = 0; step < 6000; ++step) {
    // Most handles are destroyed without a save, so that the test does not wait for the disk.
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

// Compares the load of random lines of the grammar, some of them damaged, with the plain reader.
TEST(RegistryReading, RandomFilesAreReadAsByThePlainReader) {
  std::mt19937_64 random(qx::test::Seed("RegistryReading"));
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (std::size_t lines = below(40); lines > 0; --lines) {
      const std::string name(1, static_cast<char>('a' + below(4)));
      const std::string kinds[] = {"[" + name + "]",
                                   "[" + name + "]",
                                   "",
                                   name + "=s=" + name,
                                   name + "=es=%" + name,
                                   name + "=d=" + std::to_string(static_cast<long>(random())),
                                   name + "=b=0" + name + " 1" + name,
                                   name + "=d=",
                                   name + "=x=",
                                   name};
      text += kinds[below(std::size(kinds))] + "\n";
      if (below(60) == 0) text += name + "=s=" + std::string(1000 + below(40), 'x') + "\n";
    }
    if (!text.empty() && below(3) == 0) text[below(text.size())] = "\0\n=[]\xFF"[below(6)];
    if (text.empty()) continue;

    PlainKey plain;
    FILE* stream = fmemopen(text.data(), text.size(), "r");
    const bool has_values = plain.Read(stream);
    fclose(stream);
    CRegistryNode key;
    ASSERT_EQ(qx::test::Restore(key, text), has_values) << text;
    ASSERT_EQ(qx::test::Dump(key), plain.Text()) << text;
  }
}

// Compares the load of random numbers and bytes, in the form of a save and in forms that only strtol accepts, with the
// plain reader.
TEST(RegistryReading, RandomNumbersAndBytesAreReadAsByThePlainReader) {
  constexpr std::string_view kCharacters = "0123456789abcdefABF +-xg\t";
  std::mt19937_64 random(qx::test::Seed("RegistryNumbers"));
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  for (int round = 0; round < 3000; ++round) {
    std::string numbers;
    std::string bytes;
    for (std::size_t count = below(20); count > 0; --count) {
      const std::size_t byte = below(256);
      bytes += {"0123456789abcdef"[byte / 16], "0123456789abcdef"[byte % 16], ' '};
    }
    for (std::size_t count = below(13); count > 0; --count) numbers += kCharacters[below(10)];
    if (below(2) == 0) numbers.insert(0, "-");
    for (std::string* data : {&numbers, &bytes}) {
      for (std::size_t count = below(4); count > 0; --count) {
        data->insert(data->begin() + static_cast<long>(below(data->size() + 1)),
                     kCharacters[below(kCharacters.size())]);
      }
      data->resize(data->size() - below(2) * data->size() / 8);
    }
    std::string text = "n=d=" + numbers + "\nb=b=" + bytes + "\n\n";

    PlainKey plain;
    FILE* stream = fmemopen(text.data(), text.size(), "r");
    (void)plain.Read(stream);
    fclose(stream);
    CRegistryNode key;
    ASSERT_TRUE(qx::test::Restore(key, text)) << text;
    ASSERT_EQ(qx::test::Dump(key), plain.Text()) << text;
  }
}

}  // namespace
