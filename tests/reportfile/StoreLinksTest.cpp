// Tests links in place of a store's files and directories: an ordinary user makes them, and root writes or reads the
// report.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "tests/provider/ReportRoot.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/Attacker.h"

namespace qx::test {
namespace {

constexpr uid_t kUser = kOrdinaryUser;
constexpr uid_t kOther = 65533;
constexpr char kSecret[] = "root's secret\n";

class StoreLinks : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can make links of other owners";
    ASSERT_EQ(mkdir(reports_.c_str(), 0777), 0);
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    ASSERT_EQ(chown(reports_.c_str(), kUser, kUser), 0);
    WriteFile(secret_, kSecret);
    ASSERT_EQ(chmod(secret_.c_str(), 0600), 0);
  }

  std::string Name(const std::string& name) const { return reports_ + "/" + name; }
  void LinkAs(uid_t owner, const std::string& target, const std::string& name) const {
    ASSERT_EQ(symlink(target.c_str(), Name(name).c_str()), 0);
    ASSERT_EQ(lchown(Name(name).c_str(), owner, owner), 0);
  }
  // The files of a report with one record, which belong to `owner`.
  void MakeReport(const std::string& base, uid_t owner) const {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(base.c_str(), 3));
    ASSERT_TRUE(store.writeLine("a"));
    for (const char* const end : {".ind", ".dat"}) ASSERT_EQ(chown((base + end).c_str(), owner, owner), 0);
  }
  void ExpectSecretIsUntouched() const {
    struct stat status = {};
    ASSERT_EQ(stat(secret_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(ReadFile(secret_), kSecret);
  }
  int ErrorOfOpen(const std::string& base) {
    errno = 0;
    return store_.Open(base.c_str(), 3) ? 0 : errno;
  }
  int ErrorOfOpenRead(const std::string& base) {
    errno = 0;
    return store_.OpenRead(base.c_str()) ? 0 : errno;
  }

  TempDir dir_;
  const std::string reports_ = dir_.File("reports");
  const std::string secret_ = dir_.File("secret");
  CReportFileBase store_;
};

TEST_F(StoreLinks, DataFileThatIsALinkToASecretIsNeitherServedNorEmptied) {
  LinkAs(kUser, secret_, "x.dat");
  EXPECT_EQ(ErrorOfOpen(Name("x")), ELOOP);  // the index file is missing: the store would be started over
  ExpectSecretIsUntouched();
  WriteFile(Name("x.ind"), std::string(28, '\0'));
  EXPECT_EQ(ErrorOfOpen(Name("x")), ELOOP);
  EXPECT_EQ(ErrorOfOpenRead(Name("x")), ELOOP);
  ExpectSecretIsUntouched();
}

TEST_F(StoreLinks, IndexFileThatIsALinkToASecretIsNeitherServedNorEmptied) {
  LinkAs(kUser, secret_, "x.ind");
  EXPECT_EQ(ErrorOfOpen(Name("x")), ELOOP);
  WriteFile(Name("x.dat"), "");
  EXPECT_EQ(ErrorOfOpen(Name("x")), ELOOP);
  EXPECT_EQ(ErrorOfOpenRead(Name("x")), ELOOP);
  ExpectSecretIsUntouched();
}

TEST_F(StoreLinks, DanglingLinkOfAStrangerCreatesNothing) {
  LinkAs(kUser, dir_.File("new"), "x.ind");
  EXPECT_EQ(ErrorOfOpen(Name("x")), ELOOP);
  EXPECT_FALSE(Exists(dir_.File("new")));
  EXPECT_FALSE(Exists(Name("x.dat")));
}

TEST_F(StoreLinks, DirectoryThatIsALinkIsNotFollowed) {
  ASSERT_EQ(mkdir(dir_.File("private").c_str(), 0755), 0);
  MakeReport(dir_.File("private/r"), 0);
  LinkAs(kUser, dir_.File("private"), "sub");
  EXPECT_EQ(ErrorOfOpen(Name("sub/r")), ELOOP);
  EXPECT_EQ(ErrorOfOpen(Name("sub/new")), ELOOP);
  EXPECT_EQ(ErrorOfOpenRead(Name("sub/r")), ELOOP);
  EXPECT_FALSE(Exists(dir_.File("private/new.ind")));
}

TEST_F(StoreLinks, ReaderFollowsALinkOfTheReportsOwnerAndAWriterDoesNot) {
  ASSERT_EQ(mkdir(Name("real").c_str(), 0755), 0);
  MakeReport(Name("real/r"), kUser);
  LinkAs(kUser, "real", "sub");
  EXPECT_EQ(ErrorOfOpenRead(Name("sub/r")), 0);
  EXPECT_EQ(ErrorOfOpen(Name("sub/r")), ELOOP);
  LinkAs(kOther, "real", "other");
  EXPECT_EQ(ErrorOfOpenRead(Name("other/r")), ELOOP);
}

TEST_F(StoreLinks, LinksOfRootAreFollowed) {
  MakeReport(dir_.File("r"), 0);
  LinkAs(0, dir_.File("r.ind"), "x.ind");
  LinkAs(0, dir_.File("r.dat"), "x.dat");
  EXPECT_EQ(ErrorOfOpenRead(Name("x")), 0);
  EXPECT_EQ(ErrorOfOpen(Name("x")), 0);
  EXPECT_TRUE(store_.writeLine("b"));
  EXPECT_THAT(ReadAll(store_), testing::ElementsAre("a\r\n", "b\r\n"));
}

TEST_F(StoreLinks, UserWritesThroughTheirOwnLinks) {
  MakeReport(Name("r"), kUser);
  LinkAs(kUser, "r.ind", "x.ind");
  LinkAs(kUser, "r.dat", "x.dat");
  EXPECT_TRUE(AsOrdinaryUser([&] { return store_.Open(Name("x").c_str(), 3); }));
}

TEST_F(StoreLinks, FilesOfOtherOwnersStayWritable) {
  MakeReport(Name("r"), kUser);
  EXPECT_EQ(ErrorOfOpen(Name("r")), 0);
}

// The administrator has chosen the path of the report directory, so its links are followed, whoever owns them.
TEST_F(StoreLinks, LinksAboveTheNamedReportDirectoryAreNotChecked) {
  const ReportRoot root(dir_.File("way/reports"));
  ASSERT_EQ(mkdir(dir_.File("real").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir_.File("real/reports").c_str(), 0755), 0);
  MakeReport(dir_.File("real/reports/r"), 0);
  ASSERT_EQ(symlink("real", dir_.File("way").c_str()), 0);
  ASSERT_EQ(lchown(dir_.File("way").c_str(), kUser, kUser), 0);
  EXPECT_EQ(ErrorOfOpenRead(dir_.File("way/reports/r")), 0);
  EXPECT_EQ(ErrorOfOpen(dir_.File("way/reports/r")), 0);
  EXPECT_EQ(ErrorOfOpen(dir_.File("way/reports2/r")), ELOOP);

  ASSERT_EQ(symlink("r.dat", dir_.File("real/reports/x.dat").c_str()), 0);
  ASSERT_EQ(lchown(dir_.File("real/reports/x.dat").c_str(), kUser, kUser), 0);
  EXPECT_EQ(ErrorOfOpen(dir_.File("way/reports/x")), ELOOP);
}

// The working directory may belong to anybody.
TEST_F(StoreLinks, LinkAtReportsInTheWorkingDirectoryIsRefused) {
  const RegistryContent no_root("[HKEY_LOCAL_MACHINE]\n\n\n");
  ASSERT_EQ(mkdir(dir_.File("cwd").c_str(), 0755), 0);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.File("cwd"));
  ASSERT_EQ(symlink(dir_.Path().c_str(), dir_.File("cwd/Reports").c_str()), 0);
  ASSERT_EQ(lchown(dir_.File("cwd/Reports").c_str(), kUser, kUser), 0);
  EXPECT_EQ(ErrorOfOpen(dir_.File("cwd/Reports/new")), ELOOP);
  EXPECT_EQ(ErrorOfOpen("Reports/new"), ELOOP);
  std::filesystem::current_path(before);
  EXPECT_FALSE(Exists(dir_.File("new.ind")));
}

// The user swaps the data file for a link to the secret while root opens the report for writing and starts it over.
TEST_F(StoreLinks, LinkThatIsSwappedDuringOpenNeverReachesTheSecret) {
  WriteFile(Name("x.dat"), "");
  ASSERT_EQ(chown(Name("x.dat").c_str(), kUser, kUser), 0);
  LinkAs(kUser, secret_, "bait");
  const std::string mine = Name("x.dat");
  const std::string bait = Name("bait");
  const Attacker attacker([&] { Exchange(mine.c_str(), bait.c_str()); });
  int refused = 0;
  int opened = 0;
  // On a busy machine the attacker may not run for a while, so the number of tries is not fixed.
  for (int tries = 0; tries < 5000 || (std::min(refused, opened) < 100 && tries < 500000); ++tries) {
    (void)unlink(Name("x.ind").c_str());
    const int error = ErrorOfOpen(Name("x"));
    EXPECT_TRUE(error == 0 || error == ELOOP) << error;
    refused += error == ELOOP ? 1 : 0;
    opened += error == 0 ? 1 : 0;
    if (error == 0) (void)store_.writeLine("overwritten");
  }
  ExpectSecretIsUntouched();
  EXPECT_GE(std::min(refused, opened), 100);
}

}  // namespace
}  // namespace qx::test
