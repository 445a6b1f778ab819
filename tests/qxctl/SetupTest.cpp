// Tests qxctl setup, which makes a first registry with its directories or shows what an existing one lacks, and
// registry set --create.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/qxctl/PrivateEtc.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

const char kKeyOfSetup[] = "HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor/Management/Server Control/Setup";

std::string FirstRegistry(const std::string& reports) {
  return "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\nReportRoot=s=" +
         reports +
         "\n\n\n\n\n\n[SYSTEM]\n[CurrentControlSet]\n[Control]\n[UUID]\n[C3681B60-0D26-11D3-8319-00A0C9B61E25]\n"
         "Server Control=s=SOFTWARE\\Dremlor\\Management\\Server Control\n\n\n\n\n\n\n\n";
}

// A machine in a directory: etc for the registry, log for the traces. At first none of these directories exists.
class QxctlSetup : public testing::Test, protected QxctlFixture {
 protected:
  QxctlSetup() {
    (void)chmod(Dir().Path().c_str(), 0755);
    fs::remove_all(Dir().File("Reports"));
  }

  Start Machine() const {
    Start start = StartHere();
    start.environment["QX_LOG_RINGBUF_DIR"] = Dir().File("log");
    return start;
  }

  Ran RunSetup(std::vector<std::string> more = {}) const {
    more.insert(more.begin(),
                {"setup", "--directory", Dir().File("etc/brollan"), "--settings", Dir().File("settings")});
    return Qxctl(more, Machine());
  }

  Ran SetupFor(const std::string& reports, std::vector<std::string> more = {}) const {
    more.insert(more.end(), {"--reports", Dir().File(reports)});
    return RunSetup(more);
  }

  std::string Registry() const { return Dir().File("etc/brollan/registry"); }

  void WriteRegistry(const std::string& text) const {
    fs::create_directories(Dir().File("etc/brollan"));
    WriteFile(Registry(), text);
  }

  // Runs each printed command in a shell that finds qxctl.
  void RunInShell(const std::string& commands) const {
    Start start = Machine();
    start.environment["PATH"] = fs::path(QxctlPath()).parent_path().string() + ":" + std::getenv("PATH");
    const Ran ran = Child({"/bin/bash", "-e", "-c", commands}, start).Wait();
    EXPECT_EQ(ran.code, 0) << commands << ran.err;
  }

  std::set<std::string> Everything() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(Dir().Path())) names.insert(entry.path().string());
    return names;
  }

  static std::string Owner() {
    const Ran user = Child({"/bin/sh", "-c", "printf %s:%s $(id -un) $(id -gn)"}, {.directory = "/"}).Wait();
    return user.out;
  }

  std::string NewDirectory(const std::string& name) const {
    return "make  directory  " + Owner() + "  0755  " + Dir().File(name) + "\n";
  }
};

unsigned ModeOf(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

}  // namespace

TEST_F(QxctlSetup, DryRunShowsOwnersModesAndTheRegistryAndChangesNothing) {
  const std::set<std::string> before = Everything();
  const Ran ran = SetupFor("srv/reports");
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, NewDirectory("log") + NewDirectory("srv") + NewDirectory("srv/reports") + NewDirectory("etc") +
                         NewDirectory("etc/brollan") + "make  file       " + Owner() + "  0644  " + Registry() +
                         "\n\n" + Registry() + ":\n" + FirstRegistry(Dir().File("srv/reports")));
  EXPECT_EQ(ran.err, "qxctl: nothing was changed; --apply makes what is missing\n");
  EXPECT_EQ(Everything(), before);
}

TEST_F(QxctlSetup, ApplyMakesWhatTheDryRunShows) {
  const mode_t mask = umask(077);
  const Ran ran = SetupFor("srv/reports", {"--apply"});
  umask(mask);
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_THAT(ran.err, StartsWith("qxctl: done; make a report with \"qxctl report create "));
  EXPECT_EQ(ReadFile(Registry()), FirstRegistry(Dir().File("srv/reports")));
  for (const char* const name : {"log", "srv", "srv/reports", "etc", "etc/brollan"}) {
    EXPECT_EQ(ModeOf(Dir().File(name)), 0755U) << name;
  }
  EXPECT_EQ(ModeOf(Registry()), 0644U);
}

TEST_F(QxctlSetup, DirectoriesThatExistAreKept) {
  fs::create_directories(Dir().File("srv/reports"));
  (void)chmod(Dir().File("srv/reports").c_str(), 0750);
  const Ran ran = SetupFor("srv/reports", {"--apply"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_THAT(ran.out, HasSubstr("keep  directory  " + Owner() + "  0750  " + Dir().File("srv/reports") + "\n"));
  EXPECT_EQ(ModeOf(Dir().File("srv/reports")), 0750U);
}

TEST_F(QxctlSetup, SecondSetupHasNothingToDo) {
  ASSERT_EQ(SetupFor("srv/reports", {"--apply"}).code, 0);
  const Ran ran = RunSetup({"--apply"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "qxctl: there is a registry in " + Dir().File("etc/brollan") +
                         " already, and everything that it names exists\n");
}

TEST_F(QxctlSetup, ExistingRegistryIsNotChangedAndGetsCommands) {
  WriteRegistry("[HKEY_LOCAL_MACHINE]\nx=s=y\n\n\n");
  const std::set<std::string> before = Everything();
  const Ran ran = SetupFor("my reports", {"--apply"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "qxctl registry set --create --directory " + Dir().File("etc/brollan") + " --type string '" +
                         kKeyOfSetup + "' ReportRoot '" + Dir().File("my reports") + "' --apply\n" +
                         "install -d -m 0755 '" + Dir().File("my reports") + "'\n" + "install -d -m 0755 " +
                         Dir().File("log") + "\n");
  EXPECT_EQ(ran.err, "qxctl: there is a registry in " + Dir().File("etc/brollan") +
                         ", so nothing was changed; these commands set it up\n");
  EXPECT_EQ(Everything(), before);
  EXPECT_EQ(ReadFile(Registry()), "[HKEY_LOCAL_MACHINE]\nx=s=y\n\n\n");
}

// An operator pastes the printed commands. After them, nothing is missing any more.
TEST_F(QxctlSetup, PrintedCommandsRepairEveryKindOfRegistry) {
  std::string crlf = FirstRegistry(Dir().File("r"));
  for (std::size_t at = crlf.find('\n'); at != std::string::npos; at = crlf.find('\n', at + 2))
    crlf.insert(at, 1, '\r');
  const std::string good = FirstRegistry(Dir().File("r"));
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::vector<std::string> files = {
      "",
      "[HKEY_LOCAL_MACHINE]\n\n\n",
      "[HKEY_LOCAL_MACHINE]\nx=s=y\n\n\n",
      with("ReportRoot=s=", "ReportRot=s="),
      with("ReportRoot=s=" + Dir().File("r"), "ReportRoot=d=5"),
      with("ReportRoot=s=" + Dir().File("r"), "ReportRoot=s=reports"),
      with("[Management]", "[Managment]"),
      with("Server Control=s=SOFTWARE", "Server Control=s=SOFTWARES"),
      crlf,
  };
  for (const std::string& file : files) {
    WriteRegistry(file);
    const Ran ran = SetupFor("r");
    EXPECT_EQ(ran.code, 1) << file;
    RunInShell(ran.out);
    const Ran again = SetupFor("r");
    EXPECT_EQ(again.code, 0) << file << again.out;
    EXPECT_EQ(again.out, "") << file;
    EXPECT_THAT(ReadFile(Registry()), HasSubstr("\nReportRoot=s=" + Dir().File("r") + "\n")) << file;
  }
}

TEST_F(QxctlSetup, FallbackThatIsInUseIsTakenOverFirst) {
  WriteRegistry("");
  WriteFile(Registry() + ".old", FirstRegistry(Dir().File("kept")));
  const Ran ran = RunSetup();
  EXPECT_THAT(ran.out, StartsWith("qxctl registry import --directory " + Dir().File("etc/brollan") + " " + Registry() +
                                  ".old --replace '' --apply\n"));
  RunInShell(ran.out);
  EXPECT_EQ(RunSetup().code, 0);
  EXPECT_EQ(ReadFile(Registry()), FirstRegistry(Dir().File("kept")));
}

TEST_F(QxctlSetup, EmptyNameIsAUsageErrorAndNotTheWorkingDirectory) {
  const Ran ran = RunSetup({"--reports", "", "--apply"});
  EXPECT_EQ(ran.code, 2);
  EXPECT_EQ(ran.err, "qxctl: --reports is empty; name a directory\n");
  EXPECT_FALSE(Exists(Registry()));
}

TEST_F(QxctlSetup, FileInPlaceOfADirectoryIsRefused) {
  WriteFile(Dir().File("srv"), "");
  const Ran ran = SetupFor("srv/reports", {"--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, StartsWith("qxctl: " + Dir().File("srv")));
  EXPECT_THAT(ran.err, HasSubstr(" is not a directory; move it away, or name another directory\n"));
  EXPECT_FALSE(Exists(Registry()));
}

TEST_F(QxctlSetup, DirectoryThatEverybodyMayWriteIsRefused) {
  fs::create_directory(Dir().File("open"));
  (void)chmod(Dir().File("open").c_str(), 0777);
  const Ran ran = SetupFor("open/reports", {"--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_EQ(ran.err, "qxctl: " + Dir().File("open") + " can be written by everybody, so others could replace " +
                         Dir().File("open/reports") + "; \"chmod o-w " + Dir().File("open") + "\" prevents that\n");
}

TEST_F(QxctlSetup, NameThatTheRegistryCannotHoldIsRefused) {
  const Ran ran = SetupFor("a\nb", {"--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, StartsWith("qxctl: the registry cannot name the report directory "));
  EXPECT_FALSE(Exists(Registry()));
}

TEST_F(QxctlSetup, FailedRunLeavesNoRegistryAndCanBeRepeated) {
  fs::create_directories(Dir().File("etc/brollan"));
  const std::string script = "ulimit -f 0; trap '' XFSZ; exec \"$0\" \"$@\"";
  const Ran ran = Child({"/bin/bash", "-c", script, QxctlPath(), "setup", "--directory", Dir().File("etc/brollan"),
                         "--reports", Dir().File("r"), "--apply"},
                        Machine())
                      .Wait();
  EXPECT_EQ(ran.code, 6) << ran.err;
  EXPECT_FALSE(Exists(Registry()));
  EXPECT_EQ(SetupFor("r", {"--apply"}).code, 0);
}

TEST_F(QxctlSetup, OrdinaryUserIsShownWhatRootHasToDo) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const std::vector<std::string> command = {"setpriv",     "--reuid=65534", "--regid=65534", "--clear-groups",
                                            QxctlPath(),   "setup",         "--reports",     "/no-such/reports",
                                            "--directory", "/no-such/etc",  "--apply"};
  const Ran ran = Child(command, Machine()).Wait();
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr(": Permission denied; do this as root\n"));
}

TEST_F(QxctlSetup, JsonHasStepsContentAndCommands) {
  const json plan = json::parse(SetupFor("r", {"--json"}).out);
  EXPECT_EQ(plan["registry"], Registry());
  EXPECT_EQ(plan["exists"], false);
  EXPECT_EQ(plan["applied"], false);
  EXPECT_EQ(plan["content"], FirstRegistry(Dir().File("r")));
  EXPECT_EQ(plan["steps"].back()["path"], Registry());
  EXPECT_EQ(plan["steps"].back()["mode"], "0644");
  EXPECT_EQ(json::parse(SetupFor("r", {"--json", "--apply"}).out)["applied"], true);
  fs::remove_all(Dir().File("log"));
  const json existing = json::parse(RunSetup({"--json"}).out);
  EXPECT_EQ(existing["exists"], true);
  EXPECT_EQ(existing["commands"], json::array({"install -d -m 0755 " + Dir().File("log")}));
  EXPECT_EQ(existing["exitCode"], 1);
}

// The module reads the registry that was made.
TEST_F(QxctlSetup, ModuleFindsAReportInTheMadeDirectory) {
  ASSERT_EQ(SetupFor("Reports", {"--apply"}).code, 0);
  MakeReport("load", 3, {"a"});
  Start start = Machine();
  start.directory = "/";
  EXPECT_EQ(Child(WithPrivateEtc(Registry(), {QxctlPath(), "fetch", "load"}), start).Wait().out, "a\r\n");
}

class QxctlRegistryCreate : public QxctlSetup {
 protected:
  Ran Set(std::vector<std::string> more = {}) const {
    more.insert(more.begin(),
                {"registry", "set", "--directory", Dir().File("etc/brollan"), "HKEY_LOCAL_MACHINE/A", "x", "y"});
    return Qxctl(more, Machine());
  }
};

TEST_F(QxctlRegistryCreate, MissingRegistryIsMadeOnlyWithCreate) {
  fs::create_directories(Dir().File("etc/brollan"));
  EXPECT_EQ(Set({"--apply"}).code, 4);
  EXPECT_EQ(Set({"--create"}).code, 0);
  EXPECT_FALSE(Exists(Registry())) << "a dry run";
  EXPECT_EQ(Set({"--create", "--apply"}).code, 0);
  EXPECT_EQ(ReadFile(Registry()), "[HKEY_LOCAL_MACHINE]\n[A]\nx=s=y\n\n\n\n");
}

TEST_F(QxctlRegistryCreate, FileWithoutAValueIsReplacedAndKeptAsABackup) {
  WriteRegistry("no value here\n");
  EXPECT_EQ(Set({"--apply"}).code, 5);
  EXPECT_EQ(Set({"--create", "--apply"}).code, 0);
  EXPECT_EQ(ReadFile(Registry()), "[HKEY_LOCAL_MACHINE]\n[A]\nx=s=y\n\n\n\n");
  std::size_t backups = 0;
  for (const auto& entry : fs::directory_iterator(Dir().File("etc/brollan"))) {
    if (entry.path().extension() == ".bak") backups += ReadFile(entry.path()) == "no value here\n" ? 1 : 0;
  }
  EXPECT_EQ(backups, 1U);
}

TEST_F(QxctlRegistryCreate, FallbackThatServicesWorkOnIsNotHidden) {
  WriteRegistry("");
  WriteFile(Registry() + ".old", FirstRegistry("/srv"));
  const Ran ran = Set({"--create", "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err,
              HasSubstr("services load " + Registry() +
                        ".old, because the registry file does not load; import it first: \"qxctl registry import "));
  EXPECT_EQ(ReadFile(Registry()), "");
}

TEST_F(QxctlRegistryCreate, ExistingRegistryIsEditedAsWithout) {
  WriteRegistry("[HKEY_LOCAL_MACHINE]\n[A]\nx=s=old\nz=d=1\n\n\n\n");
  EXPECT_EQ(Set({"--create", "--apply", "--quiet"}).out, "HKEY_LOCAL_MACHINE/A:\n- x=s=old\n+ x=s=y\n");
}

TEST_F(QxctlRegistryCreate, MissingDirectoryLeadsToSetup) {
  const Ran ran = Set({"--create", "--apply"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.err, "qxctl: there is no directory " + Dir().File("etc/brollan") + "; \"qxctl setup --directory " +
                         Dir().File("etc/brollan") + " --apply\" makes it\n");
}

}  // namespace qx::test
