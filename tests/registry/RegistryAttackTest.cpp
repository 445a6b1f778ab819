// An ordinary user who may write the directory of the registry, against a process of root that saves it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::Exists;
using qx::test::ReadFile;
using qx::test::RegistryTest;
using qx::test::WriteFile;

constexpr uid_t kOrdinaryUser = 65534;
constexpr std::string_view kTree = "[HKEY_LOCAL_MACHINE]\nx=d=1\n\n\n";
constexpr std::string_view kSecret = "root's own\n";

class RegistryAttack : public RegistryTest {
 protected:
  RegistryAttack() {
    WriteFile(victim_, kSecret);
    EXPECT_EQ(chmod(File("").c_str(), 0777), 0);  // without the sticky bit, so that the kernel follows all links
    Given(kTree);
  }

  static void Save(unsigned number) {
    CRegistry handle;
    EXPECT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
    EXPECT_EQ(handle.SetValue("x", number), 0);
  }

  qx::test::TempDir other_directory_;
  std::string victim_ = other_directory_.File("victim");
};

// Runs `step` again and again as an ordinary user, until it is destroyed. Only root can become another user; for
// others the attacker is they themselves, who may do as much in this directory.
class Attacker {
 public:
  template <typename Step>
  explicit Attacker(Step step) : child_(fork()) {
    if (child_ != 0) return;
    if (geteuid() == 0 && setuid(kOrdinaryUser) != 0) _exit(1);
    for (;;) step();
  }
  ~Attacker() {
    kill(child_, SIGKILL);
    int status = 0;
    while (waitpid(child_, &status, 0) < 0 && errno == EINTR) continue;
    EXPECT_TRUE(WIFSIGNALED(status)) << "the attacker ended by itself";
  }
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;

 private:
  pid_t child_;
};

TEST_F(RegistryAttack, PreparedLinkIsRemovedAndItsTargetStays) {
  {
    const std::string link = File("registry.new");
    const Attacker attacker([this, link] { (void)symlink(victim_.c_str(), link.c_str()); });
    while (!Exists(link)) usleep(100);
  }
  Save(2);
  EXPECT_EQ(ReadFile(victim_), kSecret);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nx=d=2\n\n\n");
  EXPECT_FALSE(Exists(File("registry.new")));
}

TEST_F(RegistryAttack, HardLinkIsRemovedAndItsFileStays) {
  WriteFile(File("another"), kSecret);
  ASSERT_EQ(link(File("another").c_str(), File("registry.new").c_str()), 0);
  Save(2);
  EXPECT_EQ(ReadFile(File("another")), kSecret);
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
