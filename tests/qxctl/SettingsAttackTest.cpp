// Attacks registry set and ini set, which root runs in a directory that an ordinary user may write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"
#include "tests/support/Attacker.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr char kAttackedTree[] = "[HKEY_LOCAL_MACHINE]\nx=s=old\n\n\n";
constexpr char kProfile[] = "[S]\nx=old\n";
constexpr char kSecret[] = "root's own\n";

class SettingsAttack : public testing::Test, protected QxctlFixture {
 protected:
  SettingsAttack() {
    WriteFile(victim_, kSecret);
    fs::create_directory(Dir().File("users"));
    fs::permissions(Dir().Path(), fs::perms(0755));
    fs::permissions(Dir().File("users"), fs::perms(0777));
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

  // As soon as the file for the new content exists, the user replaces it by a link to root's file, for as long as a
  // write takes.
  [[nodiscard]] Attacker Exchanging(const std::string& file) const {
    return Attacker([copy = file + ".edit", link = file + ".link", victim = victim_] {
      (void)symlink(victim.c_str(), link.c_str());
      struct stat status = {};
      if (lstat(copy.c_str(), &status) != 0) return;
      if (S_ISREG(status.st_mode) && rename(link.c_str(), copy.c_str()) == 0) usleep(1000);
      (void)unlink(copy.c_str());
    });
  }

  // Edits `file` in the user's directory while the user exchanges the new file. `edit` runs the command with further
  // arguments.
  template <typename Edit>
  void Race(const std::string& file, Edit edit) {
    const Attacker attacker = Exchanging(file);
    const int tries = RaceTries(100);
    std::map<int, int> codes;
    const auto was_open = [&] { return codes[0] > 0 && std::ssize(codes) > 1; };
    for (int i = 0; i < tries || (!was_open() && i < 100 * tries); ++i) {
      ++codes[edit({"--apply", "--force"}).code];
      ASSERT_EQ(ReadFile(victim_), kSecret) << "try " << i;
    }
    EXPECT_TRUE(was_open()) << testing::PrintToString(codes);
    int all = 0;
    for (const auto& [code, count] : codes) all += count;
    PrintTries(std::to_string(all) + " commands, " + std::to_string(all - codes[0]) + " of them hit and refused");
  }

  std::string victim_ = Dir().File("victim");
  std::string registry_ = Dir().File("users/registry");
  std::string profile_ = Dir().File("users/profile.ini");
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
  Race(registry_, [this](const std::vector<std::string>& more) { return SetRegistry(more); });
}

TEST_F(SettingsAttack, RacedProfileEditNeverHitsRootsFile) {
  Race(profile_, [this](const std::vector<std::string>& more) { return SetProfile(more); });
}

}  // namespace

}  // namespace qx::test
