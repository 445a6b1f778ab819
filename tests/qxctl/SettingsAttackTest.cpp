// registry set and ini set of root, in a directory that an ordinary user may write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"
#include "tests/support/Attacker.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr int kTries = 200;  // each runs a whole command; FilePlaceTest.cpp runs the same race thousands of times
constexpr char kAttackedTree[] = "[HKEY_LOCAL_MACHINE]\nx=s=old\n\n\n";
constexpr char kProfile[] = "[S]\nx=old\n";
constexpr char kSecret[] = "root's own\n";

class SettingsAttack : public testing::Test, protected QxctlFixture {
 protected:
  SettingsAttack() {
    WriteFile(victim_, kSecret);
    fs::create_directory(Dir().File("his"));
    fs::permissions(Dir().Path(), fs::perms(0755));
    fs::permissions(Dir().File("his"), fs::perms(0777));
    WriteFile(registry_, kAttackedTree);
    WriteFile(profile_, kProfile);
  }
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be attacked by an ordinary user";
  }

  Ran SetRegistry(std::vector<std::string> more) const {
    std::vector<std::string> words = {"registry", "set", "--file", registry_, "HKEY_LOCAL_MACHINE", "x", "new"};
    words.insert(words.end(), more.begin(), more.end());
    return Qxctl(words);
  }
  Ran SetProfile(std::vector<std::string> more) const {
    std::vector<std::string> words = {"ini", "set", profile_, "S", "x", "new"};
    words.insert(words.end(), more.begin(), more.end());
    return Qxctl(words);
  }

  // As soon as the file for the new content exists, the user replaces it by a link to root's file, long enough for a
  // write.
  [[nodiscard]] Attacker Exchanging(const std::string& file) const {
    return Attacker([copy = file + ".edit", link = file + ".link", victim = victim_] {
      (void)symlink(victim.c_str(), link.c_str());
      struct stat status = {};
      if (lstat(copy.c_str(), &status) != 0) return;
      if (S_ISREG(status.st_mode) && rename(link.c_str(), copy.c_str()) == 0) usleep(1000);
      (void)unlink(copy.c_str());
    });
  }

  std::string victim_ = Dir().File("victim");
  std::string registry_ = Dir().File("his/registry");
  std::string profile_ = Dir().File("his/profile.ini");
};

TEST_F(SettingsAttack, DirectoryThatOthersMayWriteIsRefusedWithoutForce) {
  const Ran refused = SetRegistry({"--apply"});
  EXPECT_EQ(refused.code, 5);
  EXPECT_THAT(refused.err, HasSubstr("other users may write the directory of " + registry_));
  EXPECT_THAT(refused.err, HasSubstr("--force"));
  EXPECT_EQ(SetProfile({"--apply"}).code, 5);
  EXPECT_EQ(ReadFile(registry_), kAttackedTree);
  EXPECT_EQ(ReadFile(profile_), kProfile);

  EXPECT_EQ(SetRegistry({"--apply", "--force"}).code, 0);
  EXPECT_EQ(SetProfile({"--apply", "--force"}).code, 0);
  EXPECT_EQ(ReadFile(registry_), "[HKEY_LOCAL_MACHINE]\nx=s=new\n\n\n");
  EXPECT_EQ(ReadFile(profile_), "[S]\nx=new\n");
}

TEST_F(SettingsAttack, LinkOfAUserIsRefusedAlsoWithForce) {
  for (const std::string& file : {registry_, profile_}) {
    ASSERT_TRUE(
        AsOrdinaryUser([&] { return unlink(file.c_str()) == 0 && symlink(victim_.c_str(), file.c_str()) == 0; }));
  }
  WriteFile(victim_, kAttackedTree);
  const Ran refused = SetRegistry({"--apply", "--force"});
  EXPECT_EQ(refused.code, 5);
  EXPECT_THAT(refused.err, HasSubstr("is a symbolic link of another user (uid 65534)"));
  EXPECT_EQ(SetProfile({"--apply", "--force"}).code, 5);
  EXPECT_EQ(ReadFile(victim_), kAttackedTree);
}

TEST_F(SettingsAttack, RacedRegistryEditNeverHitsRootsFile) {
  const Attacker attacker = Exchanging(registry_);
  for (int i = 0; i < kTries; ++i) {
    (void)SetRegistry({"--apply", "--force"});
    ASSERT_EQ(ReadFile(victim_), kSecret) << "try " << i;
  }
}

TEST_F(SettingsAttack, RacedProfileEditNeverHitsRootsFile) {
  const Attacker attacker = Exchanging(profile_);
  for (int i = 0; i < kTries; ++i) {
    (void)SetProfile({"--apply", "--force"});
    ASSERT_EQ(ReadFile(victim_), kSecret) << "try " << i;
  }
}

}  // namespace

}  // namespace qx::test
