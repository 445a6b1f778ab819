// Tests qxctl doctor: a private tree provokes each of its codes, and the page on troubleshooting has each code.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/qxctl/RunQxctl.h"
#include "tools/qxctl/doctor/Explanations.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

const char kSetupKey[] = "HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor/Management/Server Control/Setup";
const char kGoodRegistry[] =
    "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Dremlor]\n[Management]\n[Server "
    "Control]\n[Setup]\nReportRoot=s=%s\n\n\n\n\n\n\n"
    "\n";

// A machine in a directory: its registry, reports, traces, settings and processes have no problem.
class QxctlDoctor : public testing::Test, protected QxctlFixture {
 protected:
  QxctlDoctor() {
    for (const char* const name : {"etc", "srv", "log", "settings", "proc", "proc/100", "proc/100/fd"}) {
      fs::create_directory(Dir().File(name));
    }
    std::string registry = kGoodRegistry;
    registry.replace(registry.find("%s"), 2, Dir().File("Reports"));
    WriteFile(Dir().File("etc/registry"), registry);
    MakeReport("load", 4, {"a"});
  }

  Start Machine() const {
    Start start = StartHere();
    start.environment["QX_LOG_RINGBUF_DIR"] = Dir().File("log");
    return start;
  }

  std::vector<std::string> Command(std::vector<std::string> more = {}) const {
    std::vector<std::string> command = {
        "doctor", "--directory", Dir().File("etc"), "--settings", Dir().File("settings"), "--proc", Dir().File("proc")};
    command.insert(command.end(), more.begin(), more.end());
    return command;
  }

  Ran Doctor(const std::vector<std::string>& more = {}) const { return Qxctl(Command(more), Machine()); }

  // The findings as "CODE SEVERITY FACT".
  static std::vector<std::string> Lines(const Ran& ran) {
    std::vector<std::string> lines;
    const json document = json::parse(ran.out);
    for (const json& one : document["findings"]) {
      lines.push_back(one["code"].get<std::string>() + " " + one["severity"].get<std::string>() + " " +
                      one["fact"].get<std::string>());
    }
    return lines;
  }

  std::vector<std::string> Found(std::vector<std::string> more = {}) const {
    more.push_back("--json");
    return Lines(Doctor(more));
  }

  std::vector<std::string> FoundWith(Start start) const { return Lines(Qxctl(Command({"--json"}), std::move(start))); }

  // Whether the findings have no warning and no error.
  static bool OnlyInfos(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      if (line.find(" warning ") == 5 || line.find(" error ") == 5) return false;
    }
    return true;
  }

  // A path in quotes, as facts show it.
  std::string Q(const std::string& name) const { return "\"" + Dir().File(name) + "\""; }

  struct Finding {
    std::string fact;
    std::string command;
  };

  // The first finding with this code.
  Finding FindingOf(const std::string& code) const {
    const json document = json::parse(Doctor({"--json"}).out);
    for (const json& one : document["findings"]) {
      if (one["code"] == code) return {one["fact"], one["command"]};
    }
    ADD_FAILURE() << "there is no " << code;
    return {};
  }

  // Runs a command in a shell that finds qxctl.
  void RunInShell(const std::string& command) const {
    Start start = Machine();
    start.environment["PATH"] = fs::path(QxctlPath()).parent_path().string() + ":" + std::getenv("PATH");
    const Ran ran = Child({"/bin/bash", "-c", command}, start).Wait();
    EXPECT_EQ(ran.code, 0) << command << ": " << ran.err;
  }

  void Replace(const std::string& file, const std::string& from, const std::string& to) const {
    std::string text = ReadFile(Dir().File(file));
    WriteFile(Dir().File(file), text.replace(text.find(from), from.size(), to));
  }

  void Link(const std::string& target, const std::string& name) const { fs::create_symlink(target, Dir().File(name)); }
};

auto Has(const std::string& start) { return Contains(testing::StartsWith(start)); }

}  // namespace

TEST_F(QxctlDoctor, HealthyMachineHasALineForEachSectionAndCodeZero) {
  const Ran ran = Doctor();
  EXPECT_EQ(ran.code, 0) << ran.out;
  EXPECT_TRUE(OnlyInfos(Found())) << ran.out;
  for (const char* const code : {"QX100 ok ", "QX200 ok ", "QX300 ok ", "QX400 ok ", "QX500 ok "}) {
    EXPECT_THAT(Found(), Has(code));
  }
  EXPECT_THAT(ran.out, HasSubstr("QX200 ok      registry " + Q("etc/registry") + " loads\n"));
  EXPECT_EQ(ran.err, "");
}

TEST_F(QxctlDoctor, FindingHasItsFixAndCodeOne) {
  WriteFile(Dir().File("Reports/half.ind"), "");
  const Ran ran = Doctor();
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.out,
              HasSubstr("QX304 warning reports  " + Q("Reports/half.ind") + " exists, " + Q("Reports/half.dat") +
                        " does not. Put the missing file back from a backup, or remove the other one\n" + "    rm -i " +
                        Dir().File("Reports/half.ind") + "\n"));
  EXPECT_EQ(ran.err, "qxctl: 1 finding needs attention\n");
}

TEST_F(QxctlDoctor, Qx101TheModuleIsMissing) {
  EXPECT_THAT(Found({"--module", "none.so"}), Has("QX101 error there is no " + Q("none.so")));
}

TEST_F(QxctlDoctor, Qx102TheModuleDoesNotLoad) {
  std::string cut = ReadFile(ModulePath()).substr(0, 4096);
  WriteFile(Dir().File("cut.so"), cut);
  EXPECT_THAT(Found({"--module", "cut.so"}), Has("QX102 error "));
}

TEST_F(QxctlDoctor, Qx103TheModuleIsForAnotherMachine) {
  WriteFile(Dir().File("text.so"), "not a library");
  EXPECT_THAT(Found({"--module", "text.so"}), Has("QX103 error " + Q("text.so") + ": it is not an ELF file"));
  std::string other = ReadFile(ModulePath()).substr(0, 4096);
  other[4] = 1;
  WriteFile(Dir().File("small.so"), other);
  EXPECT_THAT(Found({"--module", "small.so"}), Contains(HasSubstr("it is built for 32 bits")));
  other[4] = 2;
  other[18] = 2;
  other[19] = 0;
  WriteFile(Dir().File("other.so"), other);
  EXPECT_THAT(Found({"--module", "other.so"}), Contains(HasSubstr("it is built for the machine number 2")));
}

TEST_F(QxctlDoctor, Qx104TheLibraryIsNotAModule) {
  EXPECT_THAT(Found({"--module", QX_OTHER_LIBRARY}), Has("QX104 error "));
  EXPECT_THAT(Found({"--module", QX_OTHER_LIBRARY}), Contains(HasSubstr(" lacks What, Reflect, GetReports")));
}

TEST_F(QxctlDoctor, Qx105OthersMayWriteTheModuleOrItsDirectory) {
  fs::create_directory(Dir().File("open"));
  fs::copy_file(ModulePath(), Dir().File("open/module.so"));
  (void)chmod(Dir().File("open").c_str(), 0777);
  Link(Dir().File("open/module.so"), "link.so");
  EXPECT_THAT(Found({"--module", "link.so"}), Has("QX105 warning " + Q("open") + " can be written by"));
  (void)chmod(Dir().File("open").c_str(), 01777);
  EXPECT_THAT(Found({"--module", "link.so"}), Not(Has("QX105"))) << "the sticky bit protects what is in it";
  (void)chmod(Dir().File("open/module.so").c_str(), 0666);
  EXPECT_THAT(Found({"--module", "link.so"}), Has("QX105 warning " + Q("open/module.so")));
}

TEST_F(QxctlDoctor, Qx106CheckingAnotherModuleThanTheInstalledOne) {
  fs::copy_file(ModulePath(), Dir().File("another.so"));
  EXPECT_THAT(Found({"--module", Dir().File("another.so")}), Has("QX106 info checked " + Q("another.so")));
}

TEST_F(QxctlDoctor, Qx201ThereIsNoRegistry) {
  fs::remove(Dir().File("etc/registry"));
  EXPECT_THAT(Found(), Has("QX201 warning there is no registry in " + Q("etc")));
}

TEST_F(QxctlDoctor, Qx202TheRegistryComesFromAFallback) {
  fs::rename(Dir().File("etc/registry"), Dir().File("etc/registry.default"));
  WriteFile(Dir().File("etc/registry"), "");
  EXPECT_THAT(Found(), Has("QX202 warning the registry comes from " + Q("etc/registry.default")));
}

TEST_F(QxctlDoctor, Qx203ARegistryFileCannotBeRead) {
  Link("registry.old", "etc/registry.old");  // points to itself, which fails for root too
  EXPECT_THAT(Found(), Has("QX203 error " + Q("etc/registry.old") + ": Too many levels of symbolic links"));
}

TEST_F(QxctlDoctor, Qx204NoRegistryFileLoads) {
  WriteFile(Dir().File("etc/registry"), "no value\n");
  EXPECT_THAT(Found(), Has("QX204 error no registry file in "));
}

TEST_F(QxctlDoctor, Qx205ARegistryFileIsALink) {
  fs::rename(Dir().File("etc/registry"), Dir().File("srv/registry"));
  Link(Dir().File("srv/registry"), "etc/registry");
  EXPECT_THAT(Found(), Has("QX205 warning " + Q("etc/registry") + " is a symbolic link"));
}

TEST_F(QxctlDoctor, Qx206OthersMayWriteTheRegistry) {
  (void)chmod(Dir().File("etc/registry").c_str(), 0666);
  EXPECT_THAT(Found(), Has("QX206 warning " + Q("etc/registry") + " can be written by everybody"));
  (void)chmod(Dir().File("etc").c_str(), 0777);
  EXPECT_THAT(Found(), Has("QX206 warning " + Q("etc") + " can be written by everybody"));
}

TEST_F(QxctlDoctor, Qx207TheHiveIsMissing) {
  WriteFile(Dir().File("etc/registry"), "[HKEY_USERS]\na=s=b\n\n\n");
  EXPECT_THAT(Found(), Has("QX207 warning " + Q("etc/registry") + " has no hive HKEY_LOCAL_MACHINE"));
}

TEST_F(QxctlDoctor, Qx208AnUnreadableRegistryWasKept) {
  WriteFile(Dir().File("etc/registry.unread"), "x");
  EXPECT_THAT(Found(), Has("QX208 warning there is a "));
}

TEST_F(QxctlDoctor, Qx301TheReportDirectoryIsMissing) {
  EXPECT_THAT(Found({"--reports", Dir().File("none")}), Has("QX301 error there is no " + Q("none")));
}

TEST_F(QxctlDoctor, Qx302TheReportDirectoryIsTheDefault) {
  WriteFile(Dir().File("etc/registry"), "[HKEY_LOCAL_MACHINE]\na=s=b\n\n\n");
  EXPECT_THAT(Found(), Has("QX302 warning no value of the registry names the report directory"));
}

TEST_F(QxctlDoctor, Qx303TheReportDirectoryOrAReportCannotBeRead) {
  WriteFile(Dir().File("file"), "");
  EXPECT_THAT(Found({"--reports", Dir().File("file")}), Has("QX303 error " + Q("file") + ": Not a directory"));
  fs::create_directory(Dir().File("Reports/d.ind"));
  WriteFile(Dir().File("Reports/d.dat"), "");
  EXPECT_THAT(Found(), Has("QX303 error " + Q("Reports/d.ind") + " is a directory"));
}

TEST_F(QxctlDoctor, Qx304HalfAReport) {
  WriteFile(Dir().File("Reports/half.dat"), "");
  EXPECT_THAT(Found(), Has("QX304 warning " + Q("Reports/half.dat") + " exists, "));
}

TEST_F(QxctlDoctor, Qx305ADamagedHeader) {
  const std::string good = ReadFile(Dir().File("Reports/load.ind"));
  const std::map<std::size_t, std::string> damages = {
      {12, "header.ring-size"}, {16, "header.slots-in-use"}, {20, "header.oldest"}};
  for (const auto& [offset, rule] : damages) {
    std::string bad = good;
    bad.replace(offset, 4, offset == 12 ? std::string(4, '\0') : std::string("\x09\0\0\0", 4));
    WriteFile(Dir().File("Reports/load.ind"), bad);
    EXPECT_THAT(Found(), Has("QX305 error " + Q("Reports/load") + ": " + rule + ": "));
  }
  for (const std::size_t bytes : {23U, 24U}) {
    WriteFile(Dir().File("Reports/load.ind"), good.substr(0, bytes));
    EXPECT_THAT(Found(), Has("QX305 error " + Q("Reports/load") + ": index.size: ")) << bytes;
  }
}

TEST_F(QxctlDoctor, Qx306OthersMayWriteTheReportDirectory) {
  (void)chmod(Dir().File("Reports").c_str(), 0777);
  EXPECT_THAT(Found(), Has("QX306 warning " + Q("Reports") + " can be written by everybody"));
}

TEST_F(QxctlDoctor, Qx307TheReportDirectoryIsRelative) {
  EXPECT_THAT(Found({"--reports", "Reports"}), Has("QX307 warning the report directory is \"Reports\""));
}

TEST_F(QxctlDoctor, Qx401EachSettingIsShownWithItsSource) {
  WriteFile(Dir().File("settings/a.ini"), "[QXRemConXfer]\nFileDebugLevel=3\n[EndOfFile]\n");
  EXPECT_THAT(Found(), Has("QX401 info level is 3, from FileDebugLevel in [QXRemConXfer] of "));
  EXPECT_THAT(Found(), Has("QX401 info trace directory is " + Q("log") + ", from QX_LOG_RINGBUF_DIR"));
}

TEST_F(QxctlDoctor, Qx402AVariableWithoutEffect) {
  Start start = Machine();
  start.environment["QX_LOG_FILE_DIR"] = "/a";
  EXPECT_THAT(FoundWith(start), Has("QX402 warning QX_LOG_FILE_DIR is set"));
}

TEST_F(QxctlDoctor, Qx403TheTraceDirectoryIsMissing) {
  Start start = Machine();
  start.environment["QX_LOG_RINGBUF_DIR"] = Dir().File("none");
  EXPECT_THAT(FoundWith(start), Has("QX403 warning there is no " + Q("none")));
}

TEST_F(QxctlDoctor, Qx404TheTraceDirectoryIsAFile) {
  WriteFile(Dir().File("file"), "");
  Start start = Machine();
  start.environment["QX_LOG_RINGBUF_DIR"] = Dir().File("file");
  EXPECT_THAT(FoundWith(start), Has("QX404 warning " + Q("file") + " is not a directory"));
}

TEST_F(QxctlDoctor, Qx405And406ProcessesThatHaveATraceFileOpen) {
  const std::string log = Dir().File("log/log.qxremconxfer");
  Link(log, "proc/100/fd/4");
  EXPECT_THAT(Found(), Has("QX406 info " + Q("log/log.qxremconxfer") + " is open in process 100"));
  fs::create_directories(Dir().File("proc/200/fd"));
  Link(log, "proc/200/fd/9");
  EXPECT_THAT(Found(), Has("QX405 warning " + Q("log/log.qxremconxfer") + " is open in process 100,200"));
  EXPECT_THAT(Found(), Not(Has("QX406")));
}

TEST_F(QxctlDoctor, Qx405IsFoundAmongRealProcesses) {
  const std::string log = Dir().File("log/log.qxremconxfer");
  const std::string holder = "exec 9>>" + log + "; echo; read line";
  Child one({"/bin/bash", "-c", holder}, {.directory = Dir().Path(), .input = "x"});
  Child other({"/bin/bash", "-c", holder}, {.directory = Dir().Path(), .input = "x"});
  (void)one.ReadSome();
  (void)other.ReadSome();
  EXPECT_THAT(Lines(Qxctl({"doctor", "--json"}, Machine())),
              Has("QX405 warning " + Q("log/log.qxremconxfer") + " is open in process "));
}

TEST_F(QxctlDoctor, Qx407AnIncompleteSettingsFile) {
  WriteFile(Dir().File("settings/a.ini"), "[QXRemConXfer]\nFileDebugLevel=3\n");
  WriteFile(Dir().File("settings/b.ini"), "[QXRemConXfer]\n[endoffile]\n");
  EXPECT_THAT(Found(), Has("QX407 warning " + Q("settings/a.ini") + " does not end with [EndOfFile]"));
  EXPECT_THAT(Found(), Not(Has("QX407 warning " + Q("settings/b.ini"))));
}

TEST_F(QxctlDoctor, Qx408ProcessesThatCannotBeSeen) {
  fs::create_directory(Dir().File("proc/300"));
  Link("fd", "proc/300/fd");  // points to itself, which fails for root too
  EXPECT_THAT(Found(), Has("QX408 info 1 processes could not be checked"));
}

TEST_F(QxctlDoctor, Qx409OthersMayWriteTheTraceDirectory) {
  (void)chmod(Dir().File("log").c_str(), 0777);
  EXPECT_THAT(Found(), Has("QX409 warning " + Q("log") + " can be written by everybody"));
}

TEST_F(QxctlDoctor, Qx410AVariableThatIsNotANumber) {
  Start start = Machine();
  start.environment["QX_LOG_DEBUG_LEVEL"] = "0x10";
  EXPECT_THAT(FoundWith(start), Has("QX410 warning QX_LOG_DEBUG_LEVEL is \"0x10\""));
}

TEST_F(QxctlDoctor, Qx501And502LimitsThatAreTooLow) {
  Start start = Machine();
  std::string line = "ulimit -n 64; ulimit -f 100000; exec \"$0\" \"$@\"";
  std::vector<std::string> command = {"/bin/bash", "-c", line, QxctlPath()};
  for (const std::string& argument : Command({"--json"})) command.push_back(argument);
  const std::vector<std::string> lines = Lines(Child(command, start).Wait());
  EXPECT_THAT(lines, Has("QX501 warning this process may open at most 64 files"));
  EXPECT_THAT(lines, Has("QX502 warning a file of this process may have at most 102400000 bytes"));
}

TEST_F(QxctlDoctor, Qx209And213LinesThatALoadMisreads) {
  WriteFile(Dir().File("etc/registry"), "# comment\n" + ReadFile(Dir().File("etc/registry")) + "x=s=y\n");
  EXPECT_THAT(Found(), Has("QX213 info line 1 of " + Q("etc/registry") + ": no-value: "));
  EXPECT_THAT(Found(), Has("QX209 warning line "));
}

TEST_F(QxctlDoctor, Qx210ANameThatIsNearlyRight) {
  Replace("etc/registry", "ReportRoot", "ReportRot");
  const std::vector<std::string> found = Found();
  EXPECT_THAT(found, Not(Has("QX30"))) << "the directory that is used instead has the same cause";
  EXPECT_THAT(found, Not(Has("QX200")));
  const Finding finding = FindingOf("QX210");
  EXPECT_EQ(finding.fact, "the value \"ReportRot\" in \"" + std::string(kSetupKey) +
                              "\" is not read; the module reads \"ReportRoot\"");
  RunInShell(finding.command);
  EXPECT_TRUE(OnlyInfos(Found())) << "the command repairs it";
  EXPECT_THAT(ReadFile(Dir().File("etc/registry")), Not(HasSubstr("ReportRot="))) << "and removes the wrong name";
}

TEST_F(QxctlDoctor, Qx210AKeyThatIsNearlyRight) {
  Replace("etc/registry", "[Management]", "[Managment]");
  EXPECT_THAT(Found(), Has("QX210 error the key \"Managment\" in \"HKEY_LOCAL_MACHINE/SOFTWARE/Dremlor\" is not read"));
  RunInShell(FindingOf("QX210").command);
  EXPECT_TRUE(OnlyInfos(Found())) << "the command repairs it";
}

TEST_F(QxctlDoctor, Qx211AValueOfTheWrongType) {
  Replace("etc/registry", "ReportRoot=s=" + Dir().File("Reports"), "ReportRoot=d=7");
  EXPECT_THAT(Found(), Has("QX211 error the value \"ReportRoot\" in "));
  RunInShell(FindingOf("QX211").command);
  EXPECT_THAT(Found(), Not(Has("QX211")));
}

TEST_F(QxctlDoctor, Qx212LineEndsOfAnotherSystem) {
  std::string text = ReadFile(Dir().File("etc/registry"));
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
    text.insert(at, 1, '\r');
  WriteFile(Dir().File("etc/registry"), text);
  EXPECT_THAT(Found(), Has("QX212 error line "));
  RunInShell(FindingOf("QX212").command);
  EXPECT_TRUE(OnlyInfos(Found())) << "the command repairs it";
}

TEST_F(QxctlDoctor, Qx212LineEndsAreCorrectedBeforeNames) {
  Replace("etc/registry", "ReportRoot", "ReportRot");
  std::string text = ReadFile(Dir().File("etc/registry"));
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
    text.insert(at, 1, '\r');
  WriteFile(Dir().File("etc/registry"), text);
  EXPECT_THAT(Found(), Not(Has("QX210"))) << "its command would set a value that ends with a CR";
  EXPECT_THAT(Found(), Not(Has("QX30"))) << "the cause is shown once";
  RunInShell(FindingOf("QX212").command);
  RunInShell(FindingOf("QX210").command);
  EXPECT_TRUE(OnlyInfos(Found()));
}

TEST_F(QxctlDoctor, Qx308SilenceIsAFindingOnlyIfItIsRequested) {
  const timespec time = {.tv_sec = ::time(nullptr) - 7200, .tv_nsec = 0};
  const timespec times[2] = {time, time};
  ASSERT_EQ(utimensat(AT_FDCWD, Dir().File("Reports/load.ind").c_str(), times, 0), 0);
  EXPECT_THAT(Found(), Not(Has("QX308")));
  EXPECT_THAT(Found({"--stale", "3h"}), Not(Has("QX308")));
  EXPECT_THAT(Found({"--stale", "10m"}), Has("QX308 warning " + Q("Reports/load") + " has had no new record for 2 h"));
  const Ran wrong = Doctor({"--stale", "10"});
  EXPECT_EQ(wrong.code, 2);
  EXPECT_THAT(wrong.err, HasSubstr(": a length of time has a unit, such as 90s, 10m, 2h or 1d"));
}

TEST_F(QxctlDoctor, Qx308ADirectoryWithoutReportsIsSilent) {
  EXPECT_THAT(Found({"--stale", "10m", "--reports", Dir().File("srv")}),
              Has("QX308 warning there is no report in " + Q("srv")));
}

// The file systems have only a few pages, and are in a mount namespace of their own.
TEST_F(QxctlDoctor, Qx309And310And411SpaceThatIsLeft) {
  const auto found_with = [&](const std::string& size) {
    std::vector<std::string> command = {"unshare", "--mount"};
    if (geteuid() != 0) command.insert(command.end(), {"--user", "--map-root-user"});
    const std::string script = "mount -t tmpfs -o size=" + size + " none \"$0\" && mount -t tmpfs -o size=" + size +
                               " none \"$1\" && shift && exec \"$@\"";
    command.insert(command.end(), {"/bin/sh", "-c", script, Dir().File("srv"), Dir().File("log"), QxctlPath()});
    for (const std::string& argument : Command({"--json", "--reports", Dir().File("srv")})) command.push_back(argument);
    return Lines(Child(command, Machine()).Wait());
  };
  EXPECT_THAT(found_with("16m"), Has("QX309 warning the file system of " + Q("srv") + " has "));
  EXPECT_THAT(found_with("16m"), Has("QX411 warning the file system of " + Q("log") + " has "));
  EXPECT_THAT(found_with("64k"), Has("QX310 error the file system of " + Q("srv") + " has "));
}

TEST_F(QxctlDoctor, ReportsOfSubdirectoriesAreChecked) {
  fs::create_directory(Dir().File("Reports/disk"));
  WriteFile(Dir().File("Reports/disk/half.dat"), "");
  EXPECT_THAT(Found(), Has("QX304 warning " + Q("Reports/disk/half.dat") + " exists, "));
}

// On a broken machine, every finding that needs attention has a command, and a shell can parse each command.
TEST_F(QxctlDoctor, EveryFindingThatNeedsAttentionEndsWithACommand) {
  Replace("etc/registry", "ReportRoot", "ReportRot");
  WriteFile(Dir().File("etc/registry"), ReadFile(Dir().File("etc/registry")) + "x=s=y\n");
  WriteFile(Dir().File("etc/registry.unread"), "x");
  (void)chmod(Dir().File("etc").c_str(), 0777);
  (void)chmod(Dir().File("log").c_str(), 0777);
  WriteFile(Dir().File("settings/it's.ini"), "[QXRemConXfer]\n");
  Start start = Machine();
  start.environment["QX_LOG_DEBUG_LEVEL"] = "0x10";
  start.environment["QX_LOG_FILE_DIR"] = "/a";
  const json document = json::parse(Qxctl(Command({"--json", "--module", "none.so"}), start).out);
  std::size_t count = 0;
  for (const json& finding : document["findings"]) {
    if (finding["severity"] != "warning" && finding["severity"] != "error") continue;
    const std::string command = finding["command"];
    EXPECT_NE(command, "") << finding;
    EXPECT_EQ(Child({"/bin/bash", "-n", "-c", command}, start).Wait().code, 0) << command;
    ++count;
  }
  EXPECT_GE(count, 9U);
}

TEST_F(QxctlDoctor, LinkIsReplacedByItsFileWithTheCommandOfQx205) {
  fs::rename(Dir().File("etc/registry"), Dir().File("srv/registry"));
  Link(Dir().File("srv/registry"), "etc/registry");
  RunInShell(FindingOf("QX205").command);
  EXPECT_FALSE(fs::is_symlink(Dir().File("etc/registry")));
  EXPECT_TRUE(OnlyInfos(Found()));
}

TEST_F(QxctlDoctor, MonitorPrintsOneLineAndEndsWithItsCode) {
  const Ran good = Doctor({"--monitor"});
  EXPECT_EQ(good.out, "QXRemConXfer OK: module, registry, reports, traces and limits are in order\n");
  EXPECT_EQ(good.err, "");
  EXPECT_EQ(good.code, 0);

  WriteFile(Dir().File("Reports/half.dat"), "");
  const Ran warning = Doctor({"--monitor"});
  EXPECT_EQ(warning.out, "QXRemConXfer WARNING: QX304 " + Q("Reports/half.dat") + " exists, " + Q("Reports/half.ind") +
                             " does not\n");
  EXPECT_EQ(warning.err, "");
  EXPECT_EQ(warning.code, 1);

  const Ran critical = Doctor({"--monitor", "--module", "none.so"});
  EXPECT_EQ(critical.out, "QXRemConXfer CRITICAL: QX101 there is no " + Q("none.so") + " (and 1 more)\n");
  EXPECT_EQ(critical.code, 2);
}

TEST_F(QxctlDoctor, MonitorIsUnknownWhereDoctorCannotRead) {
  WriteFile(Dir().File("file"), "");
  const Ran unreadable = Doctor({"--monitor", "--reports", Dir().File("file")});
  EXPECT_EQ(unreadable.out, "QXRemConXfer UNKNOWN: QX303 " + Q("file") + ": Not a directory\n");
  EXPECT_EQ(unreadable.code, 3);
  Start start = Machine();
  start.environment["TMPDIR"] = Dir().File("none");
  const Ran stopped = Qxctl(Command({"--monitor"}), start);
  EXPECT_THAT(stopped.out, testing::StartsWith("QXRemConXfer UNKNOWN: cannot make a private trace directory "));
  EXPECT_EQ(stopped.code, 3);
}

TEST_F(QxctlDoctor, NothingIsChanged) {
  const auto listing = [this] {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(Dir().Path())) names.insert(entry.path().string());
    return names;
  };
  const std::set<std::string> before = listing();
  (void)Doctor();
  EXPECT_EQ(listing(), before);
}

// Every code has a test, and a line in the page that says what to do.
TEST(DoctorCodes, EachHasATestAndALineInTroubleshooting) {
  const std::string tests = ReadFile(std::string(QX_SOURCE_DIR) + "/tests/qxctl/DoctorTest.cpp");
  const std::string page = ReadFile(std::string(QX_SOURCE_DIR) + "/docs/troubleshooting.md");
  std::set<std::string> known;
  for (const ctl::Explanation& one : ctl::AllExplanations()) {
    if (one.kind != ctl::ExplainedKind::kFinding) continue;
    known.insert(std::string(one.code));
    EXPECT_THAT(tests, HasSubstr("\"" + std::string(one.code) + " ")) << "a test that provokes it";
    EXPECT_THAT(page, HasSubstr("\n| `" + std::string(one.code) + "` | ")) << "a line in the page";
    EXPECT_THAT(page, HasSubstr(std::string(one.meaning))) << one.code;
  }
  std::set<std::string> in_page;
  for (std::size_t at = page.find("\n| `QX"); at != std::string::npos; at = page.find("\n| `QX", at + 1)) {
    in_page.insert(page.substr(at + 4, 5));
  }
  EXPECT_EQ(in_page, known);
}

}  // namespace qx::test
