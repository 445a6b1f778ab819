// What an administrator does as root next to files of other users: each command works, or is refused with a message
// that names the file, the reason and what to do. One row is one run of qxctl.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"
#include "tests/support/Attacker.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Words = std::vector<std::string>;

constexpr int kDone = 0;
constexpr int kFinding = 1;
constexpr int kRefusedCode = 5;
constexpr int kIo = 6;

constexpr char kRegistry[] = "[HKEY_LOCAL_MACHINE]\nx=s=old\n\n\n";
constexpr char kProfile[] = "[S]\nx=old\n";

// The directories in which root runs qxctl: "roots" is a private directory of root, "theirs" one of an ordinary user,
// and "sticky" one like /tmp. The paths of the rows are relative to the directory that contains these.
struct Place {
  explicit Place(const QxctlFixture& fixture) : qxctl(fixture) {}

  std::string operator()(const std::string& name) const { return qxctl.Dir().File(name); }
  void File(const std::string& name, const std::string& text, bool is_theirs = false) const {
    WriteFile((*this)(name), text);
    if (is_theirs) GiveToOrdinaryUser((*this)(name));
  }
  void Link(const std::string& target, const std::string& name, bool is_theirs = false) const {
    fs::create_symlink(target, (*this)(name));
    if (is_theirs) GiveToOrdinaryUser((*this)(name));
  }
  void GiveReport() const {
    for (const char* const end : {".ind", ".dat"}) GiveToOrdinaryUser((*this)(std::string("Reports/load") + end));
  }
  void Backup() const { EXPECT_EQ(qxctl.Qxctl({"report", "backup", "copy"}).code, kDone); }
  void BackupOfOtherNames() const {
    File("Reports/load.names", "old");
    Backup();
    File("Reports/load.names", "new");
  }
  uid_t OwnerOf(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(lstat((*this)(name).c_str(), &status), 0) << name;
    return status.st_uid;
  }

  const QxctlFixture& qxctl;
};

struct Row {
  const char* name;
  std::function<void(const Place&)> prepare;
  Words command;
  int code;
  Words says = {};                                   // the message contains all of these words
  std::function<void(const Place&)> then = nullptr;  // checks the files after the run
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

const std::function<void(const Place&)> kNothing = [](const Place&) {};
constexpr bool kTheirs = true;
const Words kOfAnother = {"belongs to another user (uid 65534)", "name a file of your own, or use --force"};
const Words kLinkOfAnother = {"is a symbolic link of another user (uid 65534)",
                              "name the file itself, or make the link"};
const Words kShared = {"other users may write the directory of",
                       "change the mode or the owner of the directory, or use"};
const Words kUntrustedLink = {"a symbolic link of the path",
                              "make the link again as root, or replace it by what it leads to"};

std::function<void(const Place&)> Holds(const std::string& file, const std::string& text, uid_t owner) {
  return [=](const Place& at) {
    EXPECT_EQ(ReadFile(at(file)), text);
    EXPECT_EQ(at.OwnerOf(file), owner);
  };
}

const std::string kRecords = "one\r\n1 2\r\n";

const Row kOutputs[] = {
    {"NewFile", kNothing, {"fetch", "load", "-o", "roots/o"}, kDone, {}, Holds("roots/o", kRecords, 0)},
    {"NewFileInTheirDirectory",
     kNothing,
     {"fetch", "load", "-o", "theirs/o"},
     kDone,
     {},
     Holds("theirs/o", kRecords, 0)},
    {"NewFileInAStickyDirectory",
     kNothing,
     {"fetch", "load", "-o", "sticky/o"},
     kDone,
     {},
     Holds("sticky/o", kRecords, 0)},
    {"RootsLink",
     [](const Place& at) { at.File("roots/o", "old"), at.Link("roots/o", "l"); },
     {"fetch", "load", "-o", "l"},
     kDone,
     {},
     [](const Place& at) {
       EXPECT_TRUE(fs::is_symlink(at("l")));
       Holds("roots/o", kRecords, 0)(at);
     }},
    {"RootsLinkToTheirFile",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs), at.Link("theirs/o", "l"); },
     {"fetch", "load", "-o", "l"},
     kRefusedCode,
     kOfAnother,
     Holds("theirs/o", "old", kOrdinaryUser)},
    {"RootsLinkToADirectory",
     [](const Place& at) { at.Link("roots", "l"); },
     {"fetch", "load", "-o", "l/o"},
     kDone,
     {},
     Holds("roots/o", kRecords, 0)},
    {"TheirLink",
     [](const Place& at) { at.File("roots/o", "old"), at.Link("../roots/o", "theirs/l", kTheirs); },
     {"fetch", "load", "-o", "theirs/l"},
     kRefusedCode,
     kLinkOfAnother,
     Holds("roots/o", "old", 0)},
    {"TheirLinkByForce",
     [](const Place& at) { at.File("roots/o", "old"), at.Link("../roots/o", "theirs/l", kTheirs); },
     {"fetch", "load", "-o", "theirs/l", "--force"},
     kRefusedCode,
     kLinkOfAnother,
     Holds("roots/o", "old", 0)},
    {"TheirLinkToADirectory",
     [](const Place& at) { at.Link("../roots", "theirs/l", kTheirs); },
     {"fetch", "load", "-o", "theirs/l/o"},
     kRefusedCode,
     kLinkOfAnother},
    {"TheirFile",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs); },
     {"fetch", "load", "-o", "theirs/o"},
     kRefusedCode,
     kOfAnother,
     Holds("theirs/o", "old", kOrdinaryUser)},
    {"TheirFileByForce",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs); },
     {"fetch", "load", "-o", "theirs/o", "--force"},
     kDone,
     {},
     Holds("theirs/o", kRecords, kOrdinaryUser)},
    {"TheirFileInAStickyDirectory",
     [](const Place& at) { at.File("sticky/o", "old", kTheirs); },
     {"fetch", "load", "-o", "sticky/o"},
     kRefusedCode,
     kOfAnother},
    {"TheirFileToExport",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs); },
     {"registry", "export", "--file", "roots/registry", "", "theirs/o"},
     kRefusedCode,
     kOfAnother},
    {"TheirFileToExportByForce",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs); },
     {"registry", "export", "--file", "roots/registry", "", "theirs/o", "--force"},
     kDone,
     {},
     [](const Place& at) { EXPECT_EQ(at.OwnerOf("theirs/o"), kOrdinaryUser); }},
    {"TheirFileForAChart",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs); },
     {"fetch", "load", "--plot", "2", "--separator", " ", "--svg", "theirs/o"},
     kRefusedCode,
     kOfAnother},
    {"TheirFileForARecordedCall",
     [](const Place& at) { at.File("theirs/o", "old", kTheirs); },
     {"module", "record", "theirs/o", "what"},
     kRefusedCode,
     {"theirs/o exists", "name another file, or replace it with --force"}},
    {"Directory", kNothing, {"fetch", "load", "-o", "roots"}, kIo, {"roots: Is a directory", "name a file in it"}},
    {"PipeWithoutAReader",
     [](const Place& at) { EXPECT_EQ(mkfifo(at("pipe").c_str(), 0600), 0); },
     {"fetch", "load", "-o", "pipe"},
     kIo,
     {"pipe: nobody reads this pipe", "start its reader first"}},
    {"FileWithTwoNamesToAppendTo",
     [](const Place& at) {
       at.File("roots/o", "");
       fs::create_hard_link(at("roots/o"), at("roots/p"));
     },
     {"fetch", "load", "--resume", "s", "-o", "roots/o"},
     kRefusedCode,
     {"roots/o has several names (hard links)", "--force"}},
    {"TheirFileToAppendTo",
     [](const Place& at) { at.File("theirs/o", "", kTheirs); },
     {"fetch", "load", "--resume", "s", "-o", "theirs/o"},
     kRefusedCode,
     kOfAnother},
    {"TheirFileToAppendToByForce",
     [](const Place& at) { at.File("theirs/o", "", kTheirs); },
     {"fetch", "load", "--resume", "s", "-o", "theirs/o", "--force"},
     kDone,
     {},
     Holds("theirs/o", kRecords, kOrdinaryUser)},
    {"TheirState",
     [](const Place& at) { at.File("theirs/s", "", kTheirs); },
     {"fetch", "load", "--resume", "theirs/s"},
     kRefusedCode,
     kOfAnother},
    {"TheirStateByForce",
     [](const Place& at) { at.File("theirs/s", "", kTheirs); },
     {"fetch", "load", "--resume", "theirs/s", "--force"},
     kDone,
     {},
     [](const Place& at) { EXPECT_EQ(at.OwnerOf("theirs/s"), kOrdinaryUser); }},
    {"TheirStateOverALink",
     [](const Place& at) { at.Link("../roots/s", "theirs/s", kTheirs); },
     {"fetch", "load", "--resume", "theirs/s", "--force"},
     kRefusedCode,
     kLinkOfAnother},
};

const Row kInputs[] = {
    {"RootsFile",
     [](const Place& at) { at.File("roots/i", "<a/>"); },
     {"module", "reflect", "--input", "@roots/i"},
     kDone},
    {"RootsLink",
     [](const Place& at) { at.File("roots/i", "<a/>"), at.Link("roots/i", "l"); },
     {"module", "reflect", "--input", "@l"},
     kDone},
    {"TheirFile",
     [](const Place& at) { at.File("theirs/i", "<a/>", kTheirs); },
     {"module", "reflect", "--input", "@theirs/i"},
     kRefusedCode,
     kOfAnother},
    {"TheirFileByForce",
     [](const Place& at) { at.File("theirs/i", "<a/>", kTheirs); },
     {"module", "reflect", "--input", "@theirs/i", "--force"},
     kDone},
    {"TheirLink",
     [](const Place& at) { at.File("roots/i", "<a/>"), at.Link("../roots/i", "theirs/l", kTheirs); },
     {"module", "reflect", "--input", "@theirs/l", "--force"},
     kRefusedCode,
     kLinkOfAnother},
    {"TheirCallToReplay",
     [](const Place& at) {
       EXPECT_EQ(at.qxctl.Qxctl({"module", "record", "theirs/c", "what"}).code, kDone);
       GiveToOrdinaryUser(at("theirs/c"));
     },
     {"module", "replay", "theirs/c"},
     kRefusedCode,
     kOfAnother},
    {"TheirCallToReplayByForce",
     [](const Place& at) {
       EXPECT_EQ(at.qxctl.Qxctl({"module", "record", "theirs/c", "what"}).code, kDone);
       GiveToOrdinaryUser(at("theirs/c"));
     },
     {"module", "replay", "theirs/c", "--force"},
     kDone},
    {"TheirTrace",
     [](const Place& at) { at.File("theirs/t", "\n2026-11-22 10:00:00.000 [00000001] a  text\n", kTheirs); },
     {"trace", "show", "theirs/t"},
     kDone},
    {"TheirRegistryToRead",
     [](const Place& at) { at.File("theirs/r", kRegistry, kTheirs); },
     {"registry", "ls", "--file", "theirs/r", "HKEY_LOCAL_MACHINE"},
     kDone},
    {"TheirRegistryToImport",
     [](const Place& at) { at.File("theirs/r", "[HKEY_LOCAL_MACHINE]\ny=s=new\n\n\n", kTheirs); },
     {"registry", "import", "--file", "roots/registry", "theirs/r", "--apply"},
     kDone},
};

const Words kSetRegistry = {"registry", "set", "--file", "roots/registry", "HKEY_LOCAL_MACHINE", "x", "new", "--apply"};

Words SetIn(const std::string& directory, const Words& more = {}) {
  Words words = {"ini", "set", directory + "/profile", "S", "x", "new", "--apply"};
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

Words SetRegistryOf(const std::string& file, const Words& more = {}) {
  Words words = kSetRegistry;
  words[3] = file;
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

const std::string kNewProfile = "[S]\nx=new\n";
const std::string kNewRegistry = "[HKEY_LOCAL_MACHINE]\nx=s=new\n\n\n";

const Row kEdits[] = {
    {"Registry", kNothing, kSetRegistry, kDone, {}, Holds("roots/registry", kNewRegistry, 0)},
    {"Profile", kNothing, SetIn("roots"), kDone, {}, Holds("roots/profile", kNewProfile, 0)},
    {"TheirFileInRootsDirectory",
     [](const Place& at) { GiveToOrdinaryUser(at("roots/profile")); },
     SetIn("roots"),
     kDone,
     {},
     Holds("roots/profile", kNewProfile, kOrdinaryUser)},
    {"TheirRegistryInRootsDirectory",
     [](const Place& at) { GiveToOrdinaryUser(at("roots/registry")); },
     kSetRegistry,
     kDone,
     {},
     Holds("roots/registry", kNewRegistry, kOrdinaryUser)},
    {"TheirDirectory", [](const Place& at) { at.File("theirs/profile", kProfile, kTheirs); }, SetIn("theirs"),
     kRefusedCode, kShared, Holds("theirs/profile", kProfile, kOrdinaryUser)},
    {"TheirDirectoryByForce",
     [](const Place& at) { at.File("theirs/profile", kProfile, kTheirs); },
     SetIn("theirs", {"--force"}),
     kDone,
     {},
     Holds("theirs/profile", kNewProfile, kOrdinaryUser)},
    {"StickyDirectory", [](const Place& at) { at.File("sticky/profile", kProfile); }, SetIn("sticky"), kRefusedCode,
     kShared},
    {"StickyDirectoryByForce",
     [](const Place& at) { at.File("sticky/profile", kProfile); },
     SetIn("sticky", {"--force"}),
     kDone,
     {},
     Holds("sticky/profile", kNewProfile, 0)},
    {"RegistryInTheirDirectory", [](const Place& at) { at.File("theirs/registry", kRegistry); },
     SetRegistryOf("theirs/registry"), kRefusedCode, kShared},
    {"RegistryInTheirDirectoryByForce",
     [](const Place& at) { at.File("theirs/registry", kRegistry); },
     SetRegistryOf("theirs/registry", {"--force"}),
     kDone,
     {},
     Holds("theirs/registry", kNewRegistry, 0)},
    {"RootsLink",
     [](const Place& at) { at.Link("roots/registry", "l"); },
     SetRegistryOf("l"),
     kRefusedCode,
     {"l is a symbolic link", "name that file, or use --force to change it"}},
    {"RootsLinkByForceNamesTheBackupThatWasMade",
     [](const Place& at) { at.Link("roots/registry", "l"); },
     SetRegistryOf("l", {"--force"}),
     kDone,
     {"the old file is kept in roots/registry."},
     Holds("roots/registry", kNewRegistry, 0)},
    {"TheirLinkByForce", [](const Place& at) { at.Link("../roots/registry", "theirs/l", kTheirs); },
     SetRegistryOf("theirs/l", {"--force"}), kRefusedCode, kLinkOfAnother, Holds("roots/registry", kRegistry, 0)},
    {"TheirCopyOfAnEdit",
     [](const Place& at) { at.File("roots/profile.edit", "", kTheirs); },
     SetIn("roots"),
     kIo,
     {"roots/profile.edit", "belongs to another user", "remove it if nobody edits the file"}},
};

const Row kReports[] = {
    {"TheirReportIsRead", [](const Place& at) { at.GiveReport(); }, {"report", "cat", "Reports/load"}, kDone},
    {"TheirReportIsVerified", [](const Place& at) { at.GiveReport(); }, {"report", "verify", "load"}, kDone},
    {"TheirReportIsFetched", [](const Place& at) { at.GiveReport(); }, {"fetch", "load"}, kDone},
    {"TheirReportIsExtended",
     [](const Place& at) { at.GiveReport(); },
     {"report", "append", "Reports/load", "three"},
     kDone,
     {},
     [](const Place& at) { EXPECT_EQ(at.OwnerOf("Reports/load.dat"), kOrdinaryUser); }},
    {"TheirReportIsBackedUp",
     [](const Place& at) { at.GiveReport(); },
     {"report", "backup", "copy"},
     kDone,
     {},
     [](const Place& at) { EXPECT_EQ(at.OwnerOf("copy/load.dat"), kOrdinaryUser); }},
    {"TheirReportIsRestored",
     [](const Place& at) {
       at.BackupOfOtherNames();
       GiveToOrdinaryUser(at("Reports/load.names"));
     },
     {"report", "restore", "copy", "--apply"},
     kDone,
     {},
     Holds("Reports/load.names", "old", kOrdinaryUser)},
    {"TheirReportIsSalvaged",
     [](const Place& at) { at.GiveReport(); },
     {"report", "salvage", "Reports/load", "--into", "./saved"},
     kDone},
    {"TheirBackupIsRestored",
     [](const Place& at) {
       at.BackupOfOtherNames();
       for (const auto& entry : fs::directory_iterator(at("copy"))) GiveToOrdinaryUser(entry.path());
       GiveToOrdinaryUser(at("copy"));
     },
     {"report", "restore", "copy", "--apply"},
     kDone,
     {},
     Holds("Reports/load.names", "old", 0)},
    {"RootsLinkToABackupIsRestored",
     [](const Place& at) { at.BackupOfOtherNames(), at.Link("copy", "l"); },
     {"report", "restore", "l", "--apply"},
     kDone,
     {},
     Holds("Reports/load.names", "old", 0)},
    {"TheirLinkToABackup",
     [](const Place& at) { at.BackupOfOtherNames(), at.Link("copy", "l", kTheirs); },
     {"report", "restore", "l", "--apply"},
     kIo,
     kUntrustedLink,
     Holds("Reports/load.names", "new", 0)},
    {"LinkAmongTheReportsToRestore",
     [](const Place& at) {
       at.BackupOfOtherNames();
       fs::remove(at("Reports/load.names"));
       at.Link("../roots/profile", "Reports/load.names");
     },
     {"report", "restore", "copy", "--apply", "--force"},
     kRefusedCode,
     {"load.names is, or is below, a symbolic link", "replace the link by the file or directory"},
     Holds("roots/profile", kProfile, 0)},
    {"LinkAmongTheReportsToBackUp",
     [](const Place& at) { at.Link("load.dat", "Reports/l.dat"); },
     {"report", "backup", "copy"},
     kFinding,
     {"l.dat is a symbolic link, which a backup leaves out", "back up its target"}},
    {"RootsLinkToAReport",
     [](const Place& at) {
       at.Link("load.ind", "Reports/l.ind");
       at.Link("load.dat", "Reports/l.dat");
     },
     {"report", "append", "Reports/l", "three"},
     kDone},
    {"TheirLinkToAReport",
     [](const Place& at) {
       at.Link("load.ind", "Reports/l.ind", kTheirs);
       at.Link("load.dat", "Reports/l.dat", kTheirs);
     },
     {"report", "append", "Reports/l", "three"},
     kIo,
     kUntrustedLink},
    {"TheirLinkToAReportIsNotFetched",
     [](const Place& at) {
       at.Link("load.ind", "Reports/l.ind", kTheirs);
       at.Link("load.dat", "Reports/l.dat", kTheirs);
     },
     {"fetch", "l"},
     kIo,
     kUntrustedLink},
    {"TheirLinkToTheirReportIsFetched",
     [](const Place& at) {
       at.GiveReport();
       at.Link("load.ind", "Reports/l.ind", kTheirs);
       at.Link("load.dat", "Reports/l.dat", kTheirs);
     },
     {"fetch", "l"},
     kDone},
    {"TheirLinkToADirectoryOfReports",
     [](const Place& at) {
       fs::create_directory(at("Reports/sub"));
       at.Link("sub", "Reports/l", kTheirs);
     },
     {"report", "create", "Reports/l/new", "--slots", "4"},
     kIo,
     kUntrustedLink},
    {"TheirLinkToNames",
     [](const Place& at) {
       at.File("Reports/n", "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=N\n");
       at.Link("n", "Reports/load.names", kTheirs);
     },
     {"names", "load"},
     kIo,
     kUntrustedLink},
    {"TheirReportsHere",
     [](const Place& at) { GiveToOrdinaryUser(at("Reports")); },
     {"fetch", "load"},
     kRefusedCode,
     {"Reports belongs to another user (uid 65534)",
      "work in a directory whose Reports root owns, or name the report"}},
    {"TheirLinkToReportsHere",
     [](const Place& at) {
       fs::rename(at("Reports"), at("real"));
       at.Link("real", "Reports", kTheirs);
     },
     {"fetch", "load"},
     kRefusedCode,
     {"is a symbolic link of another user", "name the report directory in the registry"}},
    {"RootsLinkToReportsHere",
     [](const Place& at) {
       fs::rename(at("Reports"), at("real"));
       at.Link("real", "Reports");
     },
     {"fetch", "load"},
     kDone},
};

const Words kTraced = {"--trace", "t", "module", "what"};

const Row kTraces[] = {
    {"RootsDirectory", [](const Place& at) { fs::create_directory(at("t")); }, kTraced, kDone},
    {"TheirDirectory",
     [](const Place& at) {
       fs::create_directory(at("t"));
       GiveToOrdinaryUser(at("t"));
     },
     kTraced,
     kDone,
     {},
     [](const Place& at) { EXPECT_EQ(at.OwnerOf("t/log.qxctl"), 0U); }},
    {"RootsLogOfMode0644IsKept",
     [](const Place& at) {
       fs::create_directory(at("t"));
       at.File("t/log.qxctl", "");
       EXPECT_EQ(chmod(at("t/log.qxctl").c_str(), 0644), 0);
     },
     kTraced,
     kDone,
     {},
     [](const Place& at) {
       struct stat status = {};
       EXPECT_EQ(stat(at("t/log.qxctl").c_str(), &status), 0);
       EXPECT_EQ(status.st_mode & 07777, 0644U);
       EXPECT_NE(ReadFile(at("t/log.qxctl")), "");
     }},
    {"TheirLogIsCreatedAgain",
     [](const Place& at) {
       fs::create_directory(at("t"));
       at.File("t/log.qxctl", "theirs", kTheirs);
     },
     kTraced,
     kDone,
     {},
     [](const Place& at) {
       EXPECT_EQ(at.OwnerOf("t/log.qxctl"), 0U);
       EXPECT_THAT(ReadFile(at("t/log.qxctl")), testing::Not(HasSubstr("theirs")));
     }},
    {"TheirLinkInPlaceOfTheLog",
     [](const Place& at) {
       fs::create_directory(at("t"));
       at.Link("nowhere", "t/log.qxremconxfer", kTheirs);
     },
     kTraced,
     kRefusedCode,
     {"t/log.qxremconxfer is a symbolic link of another user (uid 65534)", "remove it, or name another directory"},
     [](const Place& at) { EXPECT_FALSE(fs::exists(at("nowhere"))); }},
    {"RootsLinkInPlaceOfTheOwnLog",
     [](const Place& at) {
       fs::create_directory(at("t"));
       at.Link("nowhere", "t/log.qxctl");
     },
     kTraced,
     kRefusedCode,
     {"t/log.qxctl is a symbolic link, and traces are not written through a link"}},
    {"LogOfAService",
     [](const Place& at) {
       fs::create_directory(at("t"));
       at.File("t/log.qxremconxfer", "");
     },
     kTraced,
     kRefusedCode,
     {"t/log.qxremconxfer exists", "remove it if no service writes it, or name another directory"}},
};

class Administrator : public testing::TestWithParam<Row>, protected QxctlFixture {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root meets files of other users with the rights to change them";
    fs::permissions(Dir().Path(), fs::perms(0755));
    for (const char* const name : {"roots", "theirs", "sticky"}) fs::create_directory(Dir().File(name));
    GiveToOrdinaryUser(Dir().File("theirs"));
    fs::permissions(Dir().File("sticky"), fs::perms(01777));
    WriteFile(Dir().File("roots/registry"), kRegistry);
    WriteFile(Dir().File("roots/profile"), kProfile);
    MakeReport("load", 9, {"one", "1 2"});
  }
};

}  // namespace

TEST_P(Administrator, WorksOrSaysWhyNotAndWhatToDo) {
  const Place place(*this);
  GetParam().prepare(place);
  const Ran ran = Qxctl(GetParam().command);
  EXPECT_EQ(ran.code, GetParam().code) << ran.err;
  for (const std::string& text : GetParam().says) EXPECT_THAT(ran.err, HasSubstr(text));
  if (GetParam().then) GetParam().then(place);
}

std::string NameOfRow(const testing::TestParamInfo<Row>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(Outputs, Administrator, testing::ValuesIn(kOutputs), NameOfRow);
INSTANTIATE_TEST_SUITE_P(Inputs, Administrator, testing::ValuesIn(kInputs), NameOfRow);
INSTANTIATE_TEST_SUITE_P(Edits, Administrator, testing::ValuesIn(kEdits), NameOfRow);
INSTANTIATE_TEST_SUITE_P(Reports, Administrator, testing::ValuesIn(kReports), NameOfRow);
INSTANTIATE_TEST_SUITE_P(Traces, Administrator, testing::ValuesIn(kTraces), NameOfRow);

}  // namespace qx::test
