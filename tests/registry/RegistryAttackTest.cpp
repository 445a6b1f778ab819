// Attacks a save of root: an ordinary user may write the directory of the registry.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/registry/RegistryFixture.h"
#include "tests/support/Attacker.h"

namespace {

using qx::test::Attacker;
using qx::test::Exists;
using qx::test::ReadFile;
using qx::test::RegistryTest;
using qx::test::WriteFile;

constexpr std::string_view kTree = "[HKEY_LOCAL_MACHINE]\nx=d=1\n\n\n";
constexpr std::string_view kSecret = "root's own\n";

class RegistryAttack : public RegistryTest {
 protected:
  RegistryAttack() {
    WriteFile(victim_, kSecret);
    EXPECT_EQ(chmod(File("").c_str(), 0777), 0);  // without the sticky bit, so that the kernel follows all links
    Given(kTree);
  }

  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be attacked by an ordinary user";
  }

  static void Save(unsigned number) {
    CRegistry handle;
    EXPECT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
    EXPECT_EQ(handle.SetValue("x", number), 0);
  }

  qx::test::TempDir other_directory_;
  std::string victim_ = other_directory_.File("victim");
};

TEST_F(RegistryAttack, PreparedLinkIsRemovedAndItsTargetStays) {
  const std::string link = File("registry.new");
  ASSERT_TRUE(qx::test::AsOrdinaryUser([&] { return symlink(victim_.c_str(), link.c_str()) == 0; }));
  Save(2);
  EXPECT_EQ(ReadFile(victim_), kSecret);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nx=d=2\n\n\n");
  EXPECT_FALSE(Exists(File("registry.new")));
}

TEST_F(RegistryAttack, HardLinkIsRemovedAndItsFileStays) {
  ASSERT_EQ(chmod(other_directory_.Path().c_str(), 0711), 0);
  ASSERT_EQ(chmod(victim_.c_str(), 0600), 0);
  (void)qx::test::HardLinkByOrdinaryUser(victim_, File("registry.new"));
  Save(2);
  EXPECT_EQ(ReadFile(victim_), kSecret);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nx=d=2\n\n\n");
}

TEST_F(RegistryAttack, RacedLinkNeverHitsItsTarget) {
  constexpr unsigned kSaves = 3000;
  const std::string link = File("registry.new");
  const Attacker attacker([this, link] {
    (void)symlink(victim_.c_str(), link.c_str());
    (void)unlink(link.c_str());
  });
  for (unsigned number = 0; number < kSaves; ++number) {
    Save(number);
    ASSERT_EQ(ReadFile(victim_), kSecret) << "save " << number;
  }
}

}  // namespace
