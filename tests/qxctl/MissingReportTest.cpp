// Tests the messages about reports that do not exist, and the values of the registry that name the report directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "provider/ServerControlPaths.h"
#include "registry/Registry.h"
#include "registry/RegistryPaths.h"
#include "registry/tools/TreeDiff.h"
#include "tests/qxctl/PrivateEtc.h"
#include "tests/qxctl/RunQxctl.h"
#include "tools/qxctl/store/ReportSettings.h"

namespace qx::test {

namespace {

using ctl::ReportSettings;
using ctl::SettingMistake;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Kind = SettingMistake::Kind;
namespace fs = std::filesystem;

const char kKeyOfReports[] = "HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor/Management/Server Control/Setup";

// A registry file with these value lines in the key.
std::string RegistryWith(const std::string& values, const std::string& key = kKeyOfReports) {
  std::string text;
  std::string end = "\n";
  for (std::size_t at = 0; at != std::string::npos;) {
    const std::size_t slash = key.find('/', at);
    text += "[" + key.substr(at, slash == std::string::npos ? slash : slash - at) + "]\n";
    end += "\n";
    at = slash == std::string::npos ? slash : slash + 1;
  }
  return text + values + end;
}

ReportSettings SettingsOf(const std::string& file) {
  CRegistryNode tree;
  EXPECT_TRUE(registry::ParseTree(file, tree)) << file;
  return ctl::ReadReportSettings(tree);
}

class QxctlMissingReport : public testing::Test, protected QxctlFixture {
 protected:
  QxctlMissingReport() {
    for (const char* const name : {"load", "memory", "disk"}) MakeReport(name, 3, {"a"});
  }

  // Runs qxctl with a registry that has these values.
  Ran QxctlWith(const std::string& values, std::vector<std::string> arguments) const {
    WriteFile(Dir().File("registry"), RegistryWith(values));
    arguments.insert(arguments.begin(), QxctlPath());
    return Child(WithPrivateEtc(Dir().File("registry"), arguments), StartHere()).Wait();
  }

  std::string Reports() const { return Dir().File("Reports"); }
};

}  // namespace

TEST_F(QxctlMissingReport, EachCommandNamesTheDirectoryNearNamesAndTheValue) {
  const std::string message = "qxctl: no report laod in " + Reports() + "; did you mean load? (ReportRoot in " +
                              kKeyOfReports + " names that directory)\n";
  const std::vector<std::vector<std::string>> commands = {
      {"fetch", "laod"}, {"module", "reports", "laod", "--quiet"},     {"report", "verify", "laod"},
      {"names", "laod"}, {"report", "salvage", "laod", "--into", "x"}, {"module", "names", "laod", "--quiet"}};
  for (const std::vector<std::string>& command : commands) {
    const Ran ran = QxctlWith("ReportRoot=s=" + Reports() + "\n", command);
    EXPECT_EQ(ran.err, message) << command[0] << command[1];
    EXPECT_EQ(ran.code, 4);
  }
  const Ran loaded = QxctlWith("ReportRoot=s=" + Reports() + "\n", {"module", "load-test", "--report", "laod"});
  EXPECT_EQ(loaded.code, 4);
  EXPECT_THAT(loaded.err, HasSubstr(message));
}

TEST_F(QxctlMissingReport, FileRootIsNamedAsTheDirectoryAbove) {
  const Ran ran = QxctlWith("FileRoot=s=" + Dir().Path() + "\n", {"report", "verify", "nothing"});
  EXPECT_EQ(ran.err, "qxctl: no report nothing in " + Reports() + "; \"qxctl report list\" shows the 3 reports there " +
                         "(FileRoot in " + kKeyOfReports + " names the directory above it)\n");
}

TEST_F(QxctlMissingReport, WithoutARegistryTheMessageLeadsToSetup) {
  const Ran ran = Qxctl({"report", "verify", "laod"});
  EXPECT_EQ(ran.err,
            "qxctl: no report laod in " + Reports() +
                "; did you mean load? (no registry value sets the report directory, so \"Reports\" in the working "
                "directory is used; \"qxctl setup\" sets one)\n");
}

TEST_F(QxctlMissingReport, MissingOrEmptyDirectoryGetsTheCommandThatHelps) {
  const std::string place = std::string("ReportRoot in ") + kKeyOfReports + " names that directory";
  EXPECT_EQ(
      QxctlWith("ReportRoot=s=/no where\n", {"report", "verify", "load"}).err,
      "qxctl: there is no report directory /no where; \"install -d -m 0755 '/no where'\" makes it (" + place + ")\n");
  EXPECT_EQ(QxctlWith("ReportRoot=s=/it's\n", {"report", "verify", "load"}).err,
            "qxctl: there is no report directory /it's; \"install -d -m 0755 '/it'\\''s'\" makes it (" + place + ")\n")
      << "a shell reads the command as it is";
  EXPECT_THAT(QxctlWith("ReportRoot=s=\n", {"report", "verify", "load"}).err,
              HasSubstr("the registry names an empty report directory"));
  fs::create_directory(Dir().File("empty"));
  EXPECT_EQ(QxctlWith("ReportRoot=s=" + Dir().File("empty") + "\n", {"report", "verify", "load"}).err,
            "qxctl: no report load in " + Dir().File("empty") +
                ", which has no reports; \"qxctl report create\" makes " + "one (" + place + ")\n");
}

TEST_F(QxctlMissingReport, PathIsSearchedInItsOwnDirectoryOnly) {
  fs::create_directory(Reports() + "/below");
  MakeReport("below/laod", 3, {"a"});
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/laod"}).err, "qxctl: no report laod in Reports; did you mean load?\n");
  EXPECT_EQ(Qxctl({"report", "cat", "none/load"}).err, "qxctl: no report load in none; there is no such directory\n");
}

TEST_F(QxctlMissingReport, ReportWithoutInstanceNamesIsNotCalledMissing) {
  const Ran ran = Qxctl({"names", "load"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.err,
            "qxctl: the report load has no instance names: there is no file " + ReportPath("load") + ".names\n");
}

// The module's code (CServerControlPaths) finds the directory, the tool finds the value that names it. Both must agree.
TEST(ReportSettingsOfARegistry, AgreeWithTheModuleOnWhichValueCounts) {
  struct Row {
    std::string file;
    ReportSettings::Source source;
    std::string directory;
  };
  const std::string pointer =
      "[SYSTEM]\n[CurrentControlSet]\n[Control]\n[UUID]\n[C3681B60-0D26-11D3-8319-00A0C9B61E25]\n";
  const std::string other = "[Other]\n[Setup]\nReportRoot=s=/other\n\n\n";
  using Source = ReportSettings::Source;
  const std::vector<Row> rows = {
      {RegistryWith("ReportRoot=s=/srv/r/\n"), Source::kDirectory, "/srv/r"},
      {RegistryWith("ReportRoot=es=/srv/r\n"), Source::kDirectory, "/srv/r"},
      {RegistryWith("ReportRoot=s=\nFileRoot=s=/opt\n"), Source::kDirectory, ""},
      {RegistryWith("FileRoot=s=/opt/x/\n"), Source::kDirectoryAbove, "/opt/x/Reports"},
      {RegistryWith("ReportRoot=d=5\nFileRoot=s=/opt\n"), Source::kDirectoryAbove, "/opt/Reports"},
      {RegistryWith("ReportRoot=b=2f 61 \nFileRoot=s=/opt\n"), Source::kDirectoryAbove, "/opt/Reports"},
      {RegistryWith("x=s=y\n"), Source::kNone, fs::current_path().string() + "/Reports"},
      {RegistryWith("ReportRot=s=/srv/r\n"), Source::kNone, fs::current_path().string() + "/Reports"},
      {"[HKEY_LOCAL_MACHINE]\n" + other + pointer + "Server Control=s=Other\n\n\n\n\n\n\n\n", Source::kDirectory,
       "/other"},
      {"[HKEY_LOCAL_MACHINE]\n" + other + pointer + "Server Control=s=\n\n\n\n\n\n\n\n", Source::kNone,
       fs::current_path().string() + "/Reports"},
      {"[HKEY_LOCAL_MACHINE]\n" + other + pointer + "Server Control=d=1\n\n\n\n\n\n\n\n", Source::kNone,
       fs::current_path().string() + "/Reports"},
  };
  for (const Row& row : rows) {
    const TempDir etc;
    WriteFile(etc.File("registry"), row.file);
    const std::string place = etc.Path();
    registry::ResetRegistry(place.c_str());
    std::string directory;
    CServerControlPaths::GetServerControlReportPath(directory);
    const ReportSettings live = ctl::ReadReportSettings();
    registry::ResetRegistry(nullptr);
    EXPECT_EQ(directory, row.directory) << row.file;
    EXPECT_EQ(live.source, row.source) << row.file;
    EXPECT_EQ(SettingsOf(row.file).source, row.source) << row.file;
  }
}

TEST(ReportSettingsOfARegistry, NearNamesAndWrongTypesAreMistakes) {
  const ReportSettings rot = SettingsOf(RegistryWith("ReportRot=s=/srv/r\n"));
  ASSERT_THAT(rot.mistakes, SizeIs(1));
  EXPECT_EQ(rot.mistakes[0].kind, Kind::kNearValue);
  EXPECT_EQ(rot.mistakes[0].key + "/" + rot.mistakes[0].found, std::string(kKeyOfReports) + "/ReportRot");
  EXPECT_EQ(rot.mistakes[0].expected + "=" + rot.mistakes[0].value, "ReportRoot=/srv/r");

  const ReportSettings number = SettingsOf(RegistryWith("ReportRoot=d=5\n"));
  ASSERT_THAT(number.mistakes, SizeIs(1));
  EXPECT_EQ(number.mistakes[0].kind, Kind::kNoString);

  const ReportSettings key = SettingsOf(
      RegistryWith("ReportRoot=s=/srv/r\n", "HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor/Managment/Server Control/Setup"));
  ASSERT_THAT(key.mistakes, SizeIs(1));
  EXPECT_EQ(key.mistakes[0].kind, Kind::kNearKey);
  EXPECT_EQ(key.mistakes[0].key + "/" + key.mistakes[0].found, "HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor/Managment");
  EXPECT_EQ(key.mistakes[0].expected + "=" + key.mistakes[0].value, "Management=/srv/r");
}

TEST(ReportSettingsOfARegistry, NothingIsAMistakeWhereTheDirectoryIsNamed) {
  EXPECT_THAT(SettingsOf(RegistryWith("ReportRoot=s=/srv/r\nReportRot=s=/old\n")).mistakes, IsEmpty());
  EXPECT_THAT(SettingsOf(RegistryWith("x=s=y\n")).mistakes, IsEmpty());
}

}  // namespace qx::test
