// Tests attacks on qxctl: an ordinary user prepares files, links, pipes and records, root runs qxctl, and the user
// gains nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"
#include "tests/support/Attacker.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr int kRefused = 5;

class AttacksOnQxctl : public testing::Test, protected QxctlFixture {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be attacked by an ordinary user";
    fs::permissions(Dir().Path(), fs::perms(0755));
    fs::create_directory(Dir().File("out"));
    GiveToOrdinaryUser(Dir().File("out"));
    WriteFile(roots_, "secret");
    fs::permissions(roots_, fs::perms(0600));
    MakeReport("load", 9, {"one", "1 2"});
    WriteFile(roots_registry_, "[HKEY_USERS]\na=d=1\n\n\n");
  }

  std::string UserFile(const std::string& name, const std::string& text, mode_t mode) const {
    std::string path = Dir().File("out/" + name);
    WriteFile(path, text);
    GiveToOrdinaryUser(path);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  std::string UserLink(const std::string& name) const {
    std::string path = Dir().File("out/" + name);
    EXPECT_TRUE(AsOrdinaryUser([&] { return symlink(roots_.c_str(), path.c_str()) == 0; }));
    return path;
  }
  std::string UserPipe(const std::string& name) const {
    std::string path = Dir().File("out/" + name);
    EXPECT_TRUE(AsOrdinaryUser([&] { return mkfifo(path.c_str(), 0666) == 0; }));
    return path;
  }

  // Replaces each file in the directory by a link to root's file, and removes the link after a moment.
  void ExchangeWhatIsIn(const std::string& directory) const {
    const std::string link = directory + "/.link";
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
      if (symlink(roots_.c_str(), link.c_str()) == 0) (void)rename(link.c_str(), entry.path().c_str());
      usleep(1000);
      (void)unlink(entry.path().c_str());
    }
    usleep(2000);
  }

  // Every command that writes to a file.
  std::vector<std::vector<std::string>> Writers(const std::string& path) const {
    return {{"fetch", "load", "-o", path},
            {"fetch", "load", "--resume", "state", "-o", path},
            {"fetch", "load", "--resume", path},
            {"fetch", "load", "--plot", "2", "--separator", " ", "--svg", path},
            {"registry", "export", "--file", roots_registry_, "", path},
            {"module", "record", path, "what"}};
  }
  // Every command that reads a file.
  static std::vector<std::vector<std::string>> Readers(const std::string& path) {
    return {{"module", "reflect", "--input", "@" + path},
            {"module", "record", "call.json", "reflect", "--input", "@" + path},
            {"module", "replay", path}};
  }

  static struct stat StatusOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }
  void ExpectRootsFileUntouched() const {
    EXPECT_EQ(ReadFile(roots_), "secret");
    EXPECT_EQ(StatusOf(roots_).st_mode & 07777, 0600U);
  }
  static void ExpectRefused(const Ran& ran, const std::vector<std::string>& command) {
    EXPECT_EQ(ran.code, kRefused) << testing::PrintToString(command) << ran.err;
    EXPECT_THAT(ran.err, HasSubstr("--force")) << testing::PrintToString(command);
  }
  // Both without and with --force: the user could exchange a file that root has checked for a link.
  void ExpectLinkRefused(std::vector<std::string> command) const {
    for (int i = 0; i < 2; ++i) {
      const Ran ran = Qxctl(command);
      EXPECT_EQ(ran.code, kRefused) << testing::PrintToString(command) << ran.err;
      EXPECT_THAT(ran.out, testing::Not(HasSubstr("secret")));
      const bool is_any_file_refused = i == 0 && command[1] == "record" && command[2].ends_with("l.csv");
      const std::string reason =
          is_any_file_refused ? "exists; name another file" : "name the file itself, or make the link again as root";
      EXPECT_THAT(ran.err, HasSubstr(reason)) << testing::PrintToString(command);
      command.emplace_back("--force");
    }
  }
  Ran OnTerminal(const std::vector<std::string>& command) const {
    Start start = StartHere();
    start.out_is_terminal = true;
    return Qxctl(command, start);
  }

  std::string roots_registry_ = Dir().File("registry");
  std::string roots_ = Dir().File("roots");
};

}  // namespace

TEST_F(AttacksOnQxctl, SetIdBitsOfAUsersFileDoNotBecomeRoots) {
  const std::string path = UserFile("load.csv", "of the user", 06777);
  for (const std::vector<std::string>& command : Writers(path)) {
    ExpectRefused(Qxctl(command), command);
    EXPECT_EQ(StatusOf(path).st_uid, kOrdinaryUser);
    EXPECT_EQ(ReadFile(path), "of the user");
  }
}

TEST_F(AttacksOnQxctl, ForceReplacesTheUsersFileAndKeepsItsOwner) {
  const std::string path = UserFile("load.csv", "of the user", 06777);
  for (std::vector<std::string> command : Writers(path)) {
    WriteFile(path, "");
    ASSERT_EQ(chmod(path.c_str(), 06777), 0);
    command.emplace_back("--force");
    (void)fs::remove(Dir().File("state"));
    EXPECT_EQ(Qxctl(command).code, 0) << testing::PrintToString(command);
    EXPECT_EQ(StatusOf(path).st_uid, kOrdinaryUser) << testing::PrintToString(command);
    EXPECT_NE(ReadFile(path), "") << testing::PrintToString(command);
    const bool is_appended_to = command[2] == "--resume" && command[4] == "-o";
    EXPECT_EQ(StatusOf(path).st_mode & 07777, is_appended_to ? 06777U : 0777U) << testing::PrintToString(command);
  }
}

TEST_F(AttacksOnQxctl, ForceReadsTheUsersFile) {
  const std::string path = UserFile("request.xml", "<a/>", 0644);
  EXPECT_EQ(Qxctl({"module", "reflect", "--input", "@" + path, "--force"}).code, 0);
}

TEST_F(AttacksOnQxctl, LinkOfAUserDoesNotLeadToRootsFile) {
  const std::string path = UserLink("l.csv");
  for (const std::vector<std::string>& command : Writers(path)) ExpectLinkRefused(command);
  ExpectRootsFileUntouched();
}

TEST_F(AttacksOnQxctl, LinkOfAUserToADirectoryLeadsToNothingNewThere) {
  fs::create_directories(Dir().File("Reports/disk/sub"));
  MakeReport("disk/sda", 9, {"one"});
  MakeReport("disk/sub/sda", 9, {"one"});
  const std::string directory = Dir().File("rootsdir");
  fs::create_directory(directory);
  const std::string link = Dir().File("out/disk");
  ASSERT_TRUE(AsOrdinaryUser([&] { return symlink(directory.c_str(), link.c_str()) == 0; }));
  const std::vector<std::vector<std::string>> commands = {{"fetch", "--all", "-o", "out"},
                                                          {"report", "salvage", "--all", "--into", "out"},
                                                          {"report", "salvage", "load", "--into", "out/disk/saved"},
                                                          {"report", "backup", "out/disk/copy"}};
  for (const std::vector<std::string>& command : commands) {
    const Ran ran = Qxctl(command);
    EXPECT_NE(ran.code, 0) << testing::PrintToString(command);
    EXPECT_THAT(ran.err, HasSubstr("make the link again as root")) << testing::PrintToString(command);
    EXPECT_TRUE(fs::is_empty(directory)) << testing::PrintToString(command);
  }
}

TEST_F(AttacksOnQxctl, LinkOfAUserToRootsFileIsNotRead) {
  const std::string path = UserLink("request.xml");
  for (const std::vector<std::string>& command : Readers(path)) ExpectLinkRefused(command);
}

TEST_F(AttacksOnQxctl, FileOfAUserIsNotReadWithoutForce) {
  const std::string path = UserFile("request.xml", "<a/>", 0644);
  for (const std::vector<std::string>& command : Readers(path)) ExpectRefused(Qxctl(command), command);
}

TEST_F(AttacksOnQxctl, PipeOfAUserDoesNotBlock) {
  const std::string path = UserPipe("pipe");
  for (const std::vector<std::string>& command : Readers(path)) ExpectRefused(Qxctl(command), command);
  for (const std::vector<std::string>& command : Writers(path)) {
    EXPECT_THAT(Qxctl(command).code, testing::AnyOf(kRefused, 6)) << testing::PrintToString(command);
  }
}

TEST_F(AttacksOnQxctl, NewContentOfRootsFileHasNoSetIdBits) {
  WriteFile(Dir().File("own"), "old");
  ASSERT_EQ(chmod(Dir().File("own").c_str(), 06777), 0);
  ASSERT_EQ(Qxctl({"fetch", "load", "-o", "own"}).code, 0);
  EXPECT_EQ(StatusOf(Dir().File("own")).st_mode & 07777, 0777U);
  EXPECT_EQ(ReadFile(Dir().File("own")), "one\r\n1 2\r\n");
}

TEST_F(AttacksOnQxctl, ExchangedOutputNeverReachesRootsFile) {
  const std::string path = Dir().File("out/load.csv");
  const Attacker attacker([&] { ExchangeWhatIsIn(Dir().File("out")); });
  const int tries = RaceTries(100);
  int done = 0;
  int refused = 0;
  for (int i = 0; i < tries || (std::min(done, refused) == 0 && i < 100 * tries); ++i) {
    const std::string state = Dir().File("s");
    std::vector<std::string> command = {"fetch", "load", "-o", path};
    if (i % 2 == 1) command.insert(command.end(), {"--resume", state});
    if (i % 4 >= 2) command.emplace_back("--force");
    ++(Qxctl(command).code == 0 ? done : refused);
    ASSERT_EQ(ReadFile(roots_), "secret") << "try " << i;
    (void)unlink(state.c_str());
  }
  EXPECT_GT(std::min(done, refused), 0) << "the race was never open";
  ExpectRootsFileUntouched();
  PrintTries(std::to_string(done + refused) + " commands, " + std::to_string(refused) + " of them hit and refused");
}

TEST_F(AttacksOnQxctl, ReportsOfAUserAreNotTheReportDirectory) {
  GiveToOrdinaryUser(Dir().File("Reports"));
  const Ran fetched = Qxctl({"fetch", "load"});
  EXPECT_EQ(fetched.code, kRefused);
  EXPECT_EQ(fetched.out, "");
  EXPECT_THAT(fetched.err, HasSubstr("belongs to another user (uid 65534)"));
  EXPECT_THAT(fetched.err, HasSubstr("name the report directory in the registry"));
  EXPECT_EQ(Qxctl({"report", "verify", "load"}).code, kRefused);
  EXPECT_EQ(Qxctl({"report", "salvage", "load", "--into", "./saved"}).code, kRefused);
  EXPECT_EQ(Qxctl({"report", "backup", "copy"}).code, kRefused);
  EXPECT_EQ(Qxctl({"report", "restore", "copy"}).code, kRefused);
}

TEST_F(AttacksOnQxctl, LinkOfAUserIsNotTheReportDirectory) {
  fs::rename(Dir().File("Reports"), Dir().File("real"));
  ASSERT_EQ(symlink("real", Dir().File("Reports").c_str()), 0);
  EXPECT_EQ(Qxctl({"fetch", "load"}).code, 0) << "a link of root's";
  GiveToOrdinaryUser(Dir().File("Reports"));
  EXPECT_EQ(Qxctl({"fetch", "load"}).code, kRefused);
}

TEST_F(AttacksOnQxctl, RecordsDoNotControlTheTerminal) {
  MakeReport("evil", 9,
             {"\x1B[2Jclear",
              "\xC2\x9B"
              "31mC1",
              "\x9B"
              "31mC1",
              "del\x7F", "over\rwrite", "\xC3\xBC\ttab"});
  const std::string masked =
      "\\x1B[2Jclear\r\n\\xC2\\x9B31mC1\r\n\\x9B31mC1\r\ndel\\x7F\r\nover\\x0Dwrite\r\n\xC3\xBC\ttab\r\n";
  EXPECT_EQ(OnTerminal({"fetch", "evil"}).out, masked);
  EXPECT_EQ(OnTerminal({"report", "cat", "Reports/evil"}).out, masked);
  EXPECT_EQ(OnTerminal({"fetch", "evil", "--resume", "state"}).out, masked);
  const std::string stored = ReadFile(ReportPath("evil") + ".dat");  // the end marker follows the records
  EXPECT_EQ(Qxctl({"fetch", "evil"}).out, stored.substr(0, stored.rfind("===>")));
}

TEST_F(AttacksOnQxctl, ColoursOfRecordsAreNotTheToolsOwn) {
  MakeReport("evil", 9, {"\x1B[1;31mfake finding\x1B[0m"});
  Start start = StartHere();
  start.out_is_terminal = true;
  EXPECT_EQ(Qxctl({"--color", "always", "report", "cat", "Reports/evil"}, start).out,
            "\\x1B[1;31mfake finding\\x1B[0m\r\n");
}

TEST_F(AttacksOnQxctl, NamesInMessagesDoNotControlTheTerminal) {
  Start start = StartHere();
  start.err_is_terminal = true;
  const Ran ran = Qxctl({"module", "reflect", "--input", "@no\x1B[2Jne"}, start);
  EXPECT_NE(ran.code, 0);
  EXPECT_THAT(ran.err, HasSubstr("no\\x1B[2Jne"));
  EXPECT_THAT(ran.err, testing::Not(HasSubstr("\x1B[2J")));
}

TEST_F(AttacksOnQxctl, JsonOnATerminalStaysJson) {
  MakeReport("evil", 9, {"a\x7F\xC2\x9B"});
  EXPECT_EQ(OnTerminal({"fetch", "evil", "--format", "json"}).out, "{\"index\":0,\"text\":\"a\\u007F\\u009B\"}\n");
}

// The index file has 1,073,741,823 slots, of which only the first 1,018 are stored.
TEST_F(AttacksOnQxctl, HoleOfAnIndexFileIsLeftOut) {
  constexpr std::uint32_t kSlots = 0x3FFFFFFF;
  const std::uint32_t header[6] = {10, 10, kSlots, kSlots, kSlots, 0};
  std::string index(reinterpret_cast<const char*>(header), sizeof header);
  index.resize(4096);
  WriteFile(Dir().File("sparse.ind"), index);
  WriteFile(Dir().File("sparse.dat"), "a record\r\n\xFF");
  ASSERT_EQ(truncate(Dir().File("sparse.ind").c_str(), 24 + std::int64_t{4} * kSlots), 0);
  Start start = StartHere();
  start.out_file = Dir().File("printed");
  const Ran ran = Child({"timeout", "60", QxctlPath(), "report", "cat", "./sparse"}, start).Wait();
  EXPECT_EQ(ran.code, 1) << ran.err;
  EXPECT_THAT(ran.err, HasSubstr("slots of ./sparse.ind are a hole in the file and were left out"));
  EXPECT_LE(fs::file_size(Dir().File("printed")), 2048U * 10);
}

// The reply does not fit into the pipe, so the process waits for a reader that never reads.
TEST_F(AttacksOnQxctl, SignalRemovesThePrivateDirectory) {
  WriteFile(Dir().File("big.xml"), "<a>" + std::string(200000, 'x') + "</a>");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    fs::create_directory(Dir().File("tmp"));
    Start start = StartHere();
    start.environment["TMPDIR"] = Dir().File("tmp");
    Child child({QxctlPath(), "module", "reflect", "--input", "@big.xml"}, start);
    while (fs::is_empty(Dir().File("tmp"))) usleep(1000);
    child.Kill(signal);
    EXPECT_EQ(child.Wait().code, -signal);
    EXPECT_TRUE(fs::is_empty(Dir().File("tmp"))) << signal;
  }
}

TEST_F(AttacksOnQxctl, SignalRemovesTheDirectoryOfFaults) {
  fs::create_directory(Dir().File("tmp"));
  Start start = StartHere();
  start.environment["TMPDIR"] = Dir().File("tmp");
  Child child({QxctlPath(), "module", "faults"}, start);
  while (fs::is_empty(Dir().File("tmp"))) usleep(1000);
  child.Kill(SIGTERM);
  EXPECT_EQ(child.Wait().code, -SIGTERM);
  EXPECT_TRUE(fs::is_empty(Dir().File("tmp")));
}

}  // namespace qx::test
