// Tests the whole trace of the registry: every line of a load with all its fallbacks, of changes and of a save.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::RegistryTest;
using qx::test::TraceCapture;

class RegistryTrace : public RegistryTest {
 protected:
  static std::string Low32(const void* pointer) {
    return std::to_string(static_cast<std::int32_t>(reinterpret_cast<std::uintptr_t>(pointer)));
  }
  static std::string Hexadecimal(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
  }

  static std::string NotOpened(const std::string& file) {
    return "CRegistry: WARNING: Could not open \"" + file + "\"\n";
  }
  // `next` is the file that is tried after this one.
  static std::string NotRestored(const std::string& file, const std::string& next) {
    return "CRegistry: WARNING: Could not restore tree from \"" + file + "\", trying " + next + "\n";
  }
  static std::string NothingRestored(const std::string& file) {
    return "CRegistry: ERROR: Could not restore tree from \"" + file + "\", restoring failed\n";
  }
};

constexpr std::string_view kTracedSetup = "CRegistry: SetupTree(): ForceSetup=0, MIsSetup=0, MIsDirty=0\n";

TEST_F(RegistryTrace, LoadWithAllItsFallbacks) {
  Given("", "registry");
  Given("[HKEY_LOCAL_MACHINE]\n\n\n", "registry.old");
  const TraceCapture capture(4);
  { const CRegistry handle; }
  EXPECT_EQ(capture.Text(),
            std::string(kTracedSetup) + "CRegistry: WARNING: The length of \"" + File() + "\" is not sufficient\n" +
                NotRestored(File(), "backup") + "CRegistry: WARNING: Node restoring from \"" + File("registry.old") +
                "\" failed - check the content of this file\n" + NotRestored(File("registry.old"), "default") +
                NotOpened(File("registry.default")) + NothingRestored(File("registry.default")));
}

TEST_F(RegistryTrace, FallbackMessagesAreOfLevelOneAndTheSetupLineOfLevelTwo) {
  const TraceCapture capture(1);
  { const CRegistry handle; }
  EXPECT_EQ(capture.Text(), NotOpened(File()) + NotRestored(File(), "backup") + NotOpened(File("registry.old")) +
                                NotRestored(File("registry.old"), "default") + NotOpened(File("registry.default")) +
                                NothingRestored(File("registry.default")) +
                                "CRegistry::InitClass() : re-initialize the registry-tree\n");
}

TEST_F(RegistryTrace, NullPath) {
  const TraceCapture capture(1);
  CRegistryNode key;
  EXPECT_FALSE(CRegistry::ReadTree(nullptr, key));
  EXPECT_EQ(capture.Text(), "CRegistry: ERROR: Empty file path\n");
}

TEST_F(RegistryTrace, ChangesAndSave) {
  Given("[HKEY_LOCAL_MACHINE]\n[S]\nold=s=x\nn=d=1\n[K]\n[L]\ndeep=d=1\n\na=s=x\n\n\n\n\n");
  const TraceCapture capture(4);
  std::string expected(kTracedSetup);
  const void* displaced = nullptr;
  std::string hive;
  {
    CRegistry handle("S", CRegistry::MLocalMachine, 0);
    hive = Low32(CRegistry::MLocalMachine);
    displaced = handle.CurrentKey()->Find("old")->value.slot.pointer;
    EXPECT_NE(handle.GetValue("old"), nullptr);
    EXPECT_EQ(handle.GetValue("none"), nullptr);
    EXPECT_EQ(handle.SetValue("old", "new"), 0);
    EXPECT_EQ(handle.SetValue("fresh", 7U), 0);
    EXPECT_EQ(handle.SetValue("n", 2U), 0);
    EXPECT_EQ(handle.DeleteValue("n"), 0);
    EXPECT_EQ(handle.DeleteKey("K"), 0);
    EXPECT_EQ(handle.CreateKey(nullptr, "New\\Key", false, 0), 0);
    EXPECT_EQ(handle.CreateKey(nullptr, nullptr, false, 0), -1);
    EXPECT_EQ(handle.OpenPointerKey("P", "v", nullptr, 0), -1);
  }
  expected += "CRegistry::Open \"S\", hKey = " + hive +
              "\n"
              "CRegistry::GetValue \"old\" --> len 2\n"
              "CRegistry::GetValue \"none\" --> len 0\n"
              "CRegistry::SetValue \"old\" 3 1\n"
              "CRegistry::SetValue oEntry = " +
              Hexadecimal(displaced) +
              "\n"
              "CRegistry::SetValue \"fresh\" 4 4\n"
              "CRegistry::SetValue \"n\" 4 4\n"
              "CRegistry::SetValue oEntry = 0x1\n"
              "CRegistry::DeleteValue \"n\"\n"
              "CRegistry::DeleteKey \"K\"\n"
              "CRegistryNode::deleteNode \"L\"\n"
              "CRegistryNode::deleteNode \"deep\"\n"
              "CRegistryNode::deleteNode \"a\"\n"
              "CRegistry::CreateKey \"New\\Key\"\n"
              "CRegistry::CreateKey \"<null>\"\n"
              "CRegistry::OpenPointer \"P\"\n"
              "CRegistry::Open \"P\", hKey = 0\n"
              "CRegistry::SaveTree MPRegistryTemp[" +
              File("registry.new") + "] \t MPRegistry[" + File() + "]\n";
  EXPECT_EQ(capture.Text(), expected);
}

TEST_F(RegistryTrace, FailedSaveNamesTheTemporaryFile) {
  Given("[HKEY_LOCAL_MACHINE]\nx=d=1\n\n\n");
  CRegistry handle(CRegistry::MLocalMachine);
  EXPECT_EQ(handle.SetValue("x", 1U), 0);
  ASSERT_EQ(mkdir(File("registry.new").c_str(), 0755), 0);
  const TraceCapture capture(1);
  CRegistry::SaveTree();
  EXPECT_EQ(capture.Text(), "CRegistry: ERROR: Cannot open \"" + File("registry.new") + "\" for writing\n");
}

TEST_F(RegistryTrace, MissingCount) {
  Given("[HKEY_LOCAL_MACHINE]\nx=s=a\n\n\n");
  CRegistry handle(CRegistry::MLocalMachine);
  const TraceCapture capture(1);
  char buffer[4];
  EXPECT_EQ(handle.QueryValue(buffer, "x", static_cast<unsigned*>(nullptr)), 34);
  EXPECT_EQ(capture.Text(), "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
}

// The trace of a key has its entries in their order, each one followed by the entries below it.
TEST_F(RegistryTrace, LoadOverATreeTracesWhatItReplaces) {
  Given("[HKEY_LOCAL_MACHINE]\nold=s=x\n[A]\nb=d=1\n\nempty=b=\n\n\n");
  { const CRegistry handle; }
  Given("[HKEY_LOCAL_MACHINE]\nnew=s=x\n[A]\nc=d=1\n\n\n\n");
  const TraceCapture capture(2);
  CRegistry::SetupTree(true);
  EXPECT_EQ(capture.Text(),
            "CRegistry: SetupTree(): ForceSetup=1, MIsSetup=1, MIsDirty=0\n"
            "CRegistryNode::deleteNode \"A\"\n"
            "CRegistryNode::deleteNode \"b\"\n"
            "CRegistryNode::deleteNode \"empty\"\n"
            "CRegistryNode::deleteNode \"old\"\n");
}

}  // namespace
