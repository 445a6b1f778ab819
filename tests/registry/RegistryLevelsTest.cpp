// Tests that each line of the registry's trace is written at its own level and above, not below.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::RegistryTest;
using qx::test::TraceCapture;

struct Line {
  int level;
  std::string text;
};
using Lines = std::vector<Line>;

constexpr const char* kSetup = "CRegistry: SetupTree(): ForceSetup=0, MIsSetup=0, MIsDirty=0";

class RegistryLevels : public RegistryTest {
 protected:
  // Runs `work` at every level, each time with files that `prepare` writes and a tree that is not loaded. `work`
  // returns the expected lines, with the addresses of this run.
  void Expect(const std::function<void()>& prepare, const std::function<Lines()>& work) {
    for (int level = 0; level <= 6; ++level) {
      prepare();
      Restart();
      const TraceCapture capture(level);
      const Lines lines = work();
      std::string expected;
      for (const Line& line : lines) {
        if (line.level <= level) expected += line.text + "\n";
      }
      EXPECT_EQ(capture.Text(), expected) << "level " << level;
    }
  }

  static std::string Low32(const void* pointer) {
    return std::to_string(static_cast<std::int32_t>(reinterpret_cast<std::uintptr_t>(pointer)));
  }
  static std::string Address(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
  }
  std::string Quoted(const char* name) const { return "\"" + File(name) + "\""; }
};

TEST_F(RegistryLevels, LoadThatFindsNoGoodFile) {
  Expect(
      [this] {
        Given("");
        Given("[HKEY_LOCAL_MACHINE]\n\n\n", "registry.old");
      },
      [this] {
        { const CRegistry handle; }
        return Lines{
            {2, kSetup},
            {1, "CRegistry: WARNING: The length of " + Quoted("registry") + " is not sufficient"},
            {1, "CRegistry: WARNING: Could not restore tree from " + Quoted("registry") + ", trying backup"},
            {1, "CRegistry: WARNING: Node restoring from " + Quoted("registry.old") +
                    " failed - check the content of this file"},
            {1, "CRegistry: WARNING: Could not restore tree from " + Quoted("registry.old") + ", trying default"},
            {1, "CRegistry: WARNING: Could not open " + Quoted("registry.default")},
            {1, "CRegistry: ERROR: Could not restore tree from " + Quoted("registry.default") + ", restoring failed"},
        };
      });
}

TEST_F(RegistryLevels, HandleWithoutHives) {
  Expect([this] { Given("x=d=1\n\n"); },
         [] {
           { const CRegistry handle; }
           return Lines{{2, kSetup}, {1, "CRegistry::InitClass() : re-initialize the registry-tree"}};
         });
}

TEST_F(RegistryLevels, ReadsChangesAndTheSaveAfterThem) {
  Expect([this] { Given("[HKEY_LOCAL_MACHINE]\n[S]\nn=d=1\nold=s=x\n[K]\ndeep=d=1\n\n\n\n\n"); },
         [this] {
           CRegistry handle("S", CRegistry::MLocalMachine, 0);
           const std::string hive = Low32(CRegistry::MLocalMachine);
           const std::string displaced = Address(handle.CurrentKey()->Find("old")->value.slot.pointer);
           EXPECT_NE(handle.GetValue("old"), nullptr);
           char buffer[4];
           EXPECT_EQ(handle.QueryValue(buffer, "old", static_cast<unsigned*>(nullptr)), 34);
           EXPECT_EQ(handle.SetValue("old", "new"), 0);
           EXPECT_EQ(handle.DeleteValue("n"), 0);
           EXPECT_EQ(handle.DeleteKey("K"), 0);
           EXPECT_EQ(handle.CreateKey(nullptr, "New", false, 0), 0);
           EXPECT_EQ(handle.OpenPointerKey("P", "v", nullptr, 0), -1);
           CRegistry::SaveTree();
           return Lines{
               {2, kSetup},
               {2, "CRegistry::Open \"S\", hKey = " + hive},
               {4, "CRegistry::GetValue \"old\" --> len 2"},
               {4, "CRegistry::GetValue \"old\" --> len 2"},
               {1, "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer"},
               {2, "CRegistry::SetValue \"old\" 3 1"},
               {2, "CRegistry::SetValue oEntry = " + displaced},
               {2, "CRegistry::DeleteValue \"n\""},
               {2, "CRegistry::DeleteKey \"K\""},
               {2, "CRegistryNode::deleteNode \"deep\""},
               {2, "CRegistry::CreateKey \"New\""},
               {2, "CRegistry::OpenPointer \"P\""},
               {2, "CRegistry::Open \"P\", hKey = 0"},
               {2, "CRegistry::SaveTree MPRegistryTemp[" + File("registry.new") + "] \t MPRegistry[" + File() + "]"},
           };
         });
}

// A failed write is traced like a failed open, and no line says that the tree was saved.
TEST_F(RegistryLevels, SaveOntoAFullDisk) {
  Expect([this] { Given("[HKEY_LOCAL_MACHINE]\nx=d=1\n\n\n"); },
         [this] {
           CRegistry handle(CRegistry::MLocalMachine);
           EXPECT_EQ(handle.SetValue("x", std::string(200000, 'x').c_str()), 0);
           rlimit before = {};
           getrlimit(RLIMIT_FSIZE, &before);
           const rlimit some = {100000, before.rlim_max};  // enough for the log
           std::signal(SIGXFSZ, SIG_IGN);
           setrlimit(RLIMIT_FSIZE, &some);
           CRegistry::SaveTree();
           setrlimit(RLIMIT_FSIZE, &before);
           EXPECT_FALSE(CRegistry::MIsDirty);
           return Lines{{2, kSetup},
                        {2, "CRegistry::SetValue \"x\" 200000 1"},
                        {2, "CRegistry::SetValue oEntry = 0x1"},
                        {1, "CRegistry: ERROR: Cannot open " + Quoted("registry.new") + " for writing"}};
         });
}

TEST_F(RegistryLevels, TreeThatIsReadWithoutAPath) {
  Expect([] {},
         [] {
           CRegistryNode key;
           EXPECT_FALSE(CRegistry::ReadTree(nullptr, key));
           return Lines{{1, "CRegistry: ERROR: Empty file path"}};
         });
}

}  // namespace
