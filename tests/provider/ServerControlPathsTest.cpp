#include "provider/ServerControlPaths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "registry/Registry.h"
#include "tests/provider/ReportRoot.h"

namespace {

using qx::test::RegistryContent;
using qx::test::TempDir;

constexpr char kDefaultKey[] = "[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\n";
constexpr char kUuidKey[] =
    "[SYSTEM]\n[CurrentControlSet]\n[Control]\n[UUID]\n[C3681B60-0D26-11D3-8319-00A0C9B61E25]\n";

// A registry file with the hive of the local machine. `content` opens and closes the keys in it.
std::string Hive(const std::string& content) { return "[HKEY_LOCAL_MACHINE]\n" + content + "\n\n"; }

// A registry file with these lines in the Setup key of the default root.
std::string DefaultSetup(const std::string& lines) { return Hive(kDefaultKey + lines + "\n\n\n\n\n"); }

// A registry file with `pointer_line` as the pointer value. ReportRoot is /default in the Setup key of the default
// root, and /other in that of the root SOFTWARE\Other.
std::string PointedSetup(const std::string& pointer_line) {
  return Hive(
      std::string("[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\nReportRoot=s=/default\n\n\n\n\n") +
      "[Other]\n[Setup]\nReportRoot=s=/other\n\n\n\n" + kUuidKey + pointer_line + "\n\n\n\n\n");
}

std::string ReportPath(const std::string& registry_file, std::string path = "unchanged") {
  const RegistryContent registry(registry_file);
  const char* const text = CServerControlPaths::GetServerControlReportPath(path);
  EXPECT_EQ(text, path.c_str());
  return path;
}

// Enters a directory and returns to the old one at the end of the scope.
class ScopedWorkingDirectory {
 public:
  explicit ScopedWorkingDirectory(const std::string& path) : old_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~ScopedWorkingDirectory() { std::filesystem::current_path(old_); }
  ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
  ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

 private:
  std::filesystem::path old_;
};

TEST(ServerControlPaths, WithoutAPointerTheDefaultRootIsUsed) {
  EXPECT_EQ(ReportPath(DefaultSetup("ReportRoot=s=/srv/reports\n")), "/srv/reports");
}

TEST(ServerControlPaths, OneTrailingSlashIsRemovedFromIndexThreeOn) {
  const auto path_of = [](const std::string& root) { return ReportPath(DefaultSetup("ReportRoot=s=" + root + "\n")); };
  EXPECT_EQ(path_of("/srv/reports/"), "/srv/reports");
  EXPECT_EQ(path_of("/srv/reports//"), "/srv/reports/");
  EXPECT_EQ(path_of("/ab/"), "/ab");
  EXPECT_EQ(path_of("/a/"), "/a/");
  EXPECT_EQ(path_of("/"), "/");
  EXPECT_EQ(path_of("C:\\reports\\"), "C:\\reports\\");
  EXPECT_EQ(path_of("rel/"), "rel");
}

TEST(ServerControlPaths, EmptyReportRootIsAnEmptyPath) {
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/opt/x\nReportRoot=s=\n")), "");
}

TEST(ServerControlPaths, FileRootIsTheDirectoryAboveReports) {
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/opt/x/\n")), "/opt/x/Reports");
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/opt/x\n")), "/opt/x/Reports");
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/a/\n")), "/a//Reports");
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=\n")), "/Reports");
}

TEST(ServerControlPaths, ReportRootHasPriorityOverFileRoot) {
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/opt/x\nReportRoot=s=/srv\n")), "/srv");
}

TEST(ServerControlPaths, ReportRootThatIsANumberIsIgnored) {
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/opt/x\nReportRoot=d=12\n")), "/opt/x/Reports");
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=s=/opt/x\nReportRoot=b=2f 61 00 \n")), "/opt/x/Reports");
}

TEST(ServerControlPaths, DirectoryValuesAreExpanded) {
  const qx::test::ScopedEnv base("QX_TEST_BASE", "/a/rather/long/base/directory");
  EXPECT_EQ(ReportPath(DefaultSetup("ReportRoot=es=%QX_TEST_BASE%/r/\n")), "/a/rather/long/base/directory/r");
  EXPECT_EQ(ReportPath(DefaultSetup("FileRoot=es=%QX_TEST_BASE%\n")), "/a/rather/long/base/directory/Reports");
}

TEST(ServerControlPaths, DefaultIsReportsBelowTheWorkingDirectory) {
  const TempDir directory;
  const ScopedWorkingDirectory scope(directory.Path());
  const std::string here = std::filesystem::current_path().string();
  EXPECT_EQ(ReportPath(DefaultSetup("Other=s=x\n")), here + "/Reports");
  EXPECT_EQ(ReportPath(Hive("Other=s=x\n")), here + "/Reports");
  EXPECT_EQ(ReportPath(""), here + "/Reports");
}

TEST(ServerControlPaths, WithoutAWorkingDirectoryReportsIsAppendedToTheInput) {
  auto directory = std::make_unique<TempDir>();
  const ScopedWorkingDirectory scope(directory->Path());
  directory.reset();
  EXPECT_EQ(ReportPath(DefaultSetup("Other=s=x\n"), "given"), "given/Reports");
}

TEST(ServerControlPaths, PointerNamesAnotherRoot) {
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=s=SOFTWARE\\Other\n")), "/other");
  EXPECT_EQ(ReportPath(PointedSetup("Other=s=SOFTWARE\\Other\n")), "/default");
}

TEST(ServerControlPaths, EmptyPointerCountsAsMissing) {
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=s=\n")), "/default");
}

TEST(ServerControlPaths, PointerThatIsNotAStringCountsAsMissing) {
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=d=5\n")), "/default");
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=b=53 00 \n")), "/default");
}

TEST(ServerControlPaths, PointerThatExpansionMakesTooLongCountsAsMissing) {
  const qx::test::ScopedEnv exact("QX_TEST_ROOT", "SOFTWARE\\Other");
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=es=%QX_TEST_ROOT%\n")), "/other");
  const qx::test::ScopedEnv longer("QX_TEST_ROOT", "SOFTWARE\\Other\\");
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=es=%QX_TEST_ROOT%\n")), "/default");
}

TEST(ServerControlPaths, PointerToAMissingRootDoesNotFallBackToTheDefaultRoot) {
  const TempDir directory;
  const ScopedWorkingDirectory scope(directory.Path());
  EXPECT_EQ(ReportPath(PointedSetup("Server Control=s=SOFTWARE\\Gone\n")),
            std::filesystem::current_path().string() + "/Reports");
}

TEST(ServerControlPaths, NothingIsCached) {
  const RegistryContent registry(DefaultSetup("ReportRoot=s=/first\n"));
  std::string path;
  CServerControlPaths::GetServerControlReportPath(path);
  EXPECT_EQ(path, "/first");
  {
    CRegistry change;
    ASSERT_EQ(change.Open("SOFTWARE\\Dremlor\\Management\\Server Control\\Setup", CRegistry::MLocalMachine, 0), 0);
    ASSERT_EQ(change.SetValue("ReportRoot", "/second"), 0);
  }
  CServerControlPaths::GetServerControlReportPath(path);
  EXPECT_EQ(path, "/second");
}

TEST(ServerControlPaths, LookupWritesATreeThatHasChanged) {
  const RegistryContent registry(DefaultSetup("ReportRoot=s=/srv\n"));
  std::string path;
  CServerControlPaths::GetServerControlReportPath(path);
  CRegistry::MIsDirty = true;
  CServerControlPaths::GetServerControlReportPath(path);
  EXPECT_FALSE(CRegistry::MIsDirty);
}

TEST(ServerControlPathsThreads, ManyThreadsMayLookUpAtOnce) {
  const RegistryContent registry(DefaultSetup("ReportRoot=s=/srv/reports/\n"));
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 50; ++round) {
        std::string path;
        CServerControlPaths::GetServerControlReportPath(path);
        ASSERT_EQ(path, "/srv/reports");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
