// Tests qxctl report backup --dated, backups and verify-backup, end to end, and their documents against the schemas.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

namespace fs = std::filesystem;

class QxctlBackups : public testing::Test, protected QxctlFixture {
 protected:
  QxctlBackups() {
    fs::create_directory(Dir().File("backups"));
    MakeReport("load", 3, {"a", "b"});
    MakeReport("other", 3, {"x"});
  }

  // Runs the command with --json. The exit code in the document must be that of the process; its schema is that of
  // `words`.
  json Document(const std::string& words, std::vector<std::string> arguments, int code) {
    arguments.emplace_back("--json");
    const Ran ran = Qxctl(arguments);
    transcript_ += "$ qxctl " + words + " --json\n" + ran.out;
    EXPECT_EQ(ran.code, code) << ran.out << ran.err;
    const json document = json::parse(ran.out);
    EXPECT_EQ(document["exitCode"], code);
    return document;
  }

  // The faults of the documents so far, by their schemas.
  std::string SchemaFaults() const {
    const std::string source = QX_SOURCE_DIR;
    const std::vector<std::string> command = {"/usr/bin/python3", source + "/tests/docs/check_documents.py",
                                              source + "/docs/schemas"};
    const Ran ran = Child(command, {.directory = source, .input = transcript_}).Wait();
    return ran.out + ran.err;
  }

  // Makes a compressed backup. Returns its directory.
  std::string CompressedBackup() const {
    EXPECT_EQ(Qxctl({"report", "backup", "backups", "--dated", "--compress"}).code, 0);
    return fs::directory_iterator(Dir().File("backups"))->path();
  }

  // Whether the private directory in "tmp" has the file "zeros".
  bool HasZeros() const {
    std::error_code error;
    const fs::directory_iterator made(tmp_, error);
    return made != fs::directory_iterator() && fs::exists(made->path() / "zeros", error);
  }

  // Sends the signal while the file "zeros" is expanded in "tmp". Returns false if the command ends before it.
  bool EndWhileItExpands(const std::string& command, const std::string& backup, int signal) const {
    Start start = StartHere();
    start.environment["TMPDIR"] = tmp_;
    Child child({QxctlPath(), "report", command, backup}, start);
    for (int i = 0; i < 20'000 && !HasZeros(); ++i) usleep(100);
    child.Kill(signal);
    return child.Wait().code == -signal;
  }

  std::string transcript_;
  const std::string tmp_ = Dir().File("tmp");
};

}  // namespace

TEST_F(QxctlBackups, DatedBackupIsListedVerifiedAndRestored) {
  const json made = Document("report backup", {"report", "backup", "backups", "--dated", "--compress"}, 0);
  const std::string backup = made["backup"];
  EXPECT_EQ(made["removed"], json::array());
  const json list = Document("report backups", {"report", "backups", "backups"}, 0);
  ASSERT_EQ(list["backups"].size(), 1U);
  EXPECT_EQ(list["backups"][0]["state"], "whole");
  EXPECT_EQ(list["backups"][0]["reports"], 2);
  EXPECT_EQ(Document("report verify-backup", {"report", "verify-backup", backup}, 0)["items"][0],
            json::parse(R"({"name": "load", "kind": "report", "state": "sound", "records": 2})"));
  Append("load", {"c"});
  Append("other", {"y"});
  const json plan = Document("report restore", {"report", "restore", backup, "--report", "other"}, 0);
  EXPECT_EQ(plan["items"].size(), 1U);
  EXPECT_EQ(Qxctl({"report", "restore", backup, "--report", "other", "--apply"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "other"}).out, "x\r\n");
  EXPECT_EQ(Qxctl({"report", "cat", "load"}).out, "a\r\nb\r\nc\r\n");
  EXPECT_EQ(SchemaFaults(), "");
}

TEST_F(QxctlBackups, DamagedBackupIsReportedAndNotRestored) {
  const std::string backup = Document("report backup", {"report", "backup", "backups", "--dated"}, 0)["backup"];
  fs::resize_file(Dir().File(backup + "/reports/load.dat"), 3);
  EXPECT_EQ(Document("report verify-backup", {"report", "verify-backup", backup}, 1)["items"][0]["state"], "changed");
  const Ran refused = Qxctl({"report", "restore", backup, "--apply", "--force"});
  EXPECT_EQ(refused.code, 5);
  EXPECT_THAT(refused.err, HasSubstr("nothing was changed: load in " + backup));
  EXPECT_EQ(Qxctl({"report", "restore", backup, "--report", "other", "--apply"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "restore", backup, "--report", "none"}).code, 4);
  fs::remove(Dir().File(backup + "/backup.sha256"));
  EXPECT_EQ(Document("report backups", {"report", "backups", "backups"}, 1)["backups"][0]["state"], "damaged");
  EXPECT_EQ(Qxctl({"report", "verify-backup", backup}).code, 1);
  EXPECT_EQ(SchemaFaults(), "");
}

TEST_F(QxctlBackups, KeepRemovesTheOldestBackups) {
  const std::string first = Document("report backup", {"report", "backup", "backups", "--dated"}, 0)["backup"];
  const json second = Document("report backup", {"report", "backup", "backups", "--dated", "--keep", "1"}, 0);
  EXPECT_EQ(second["removed"], json::array({fs::path(first).filename().string()}));
  EXPECT_FALSE(Exists(Dir().File(first)));
  EXPECT_EQ(Qxctl({"report", "backup", "none", "--dated"}).code, 6);
  EXPECT_EQ(Qxctl({"report", "backup", "backups", "--keep", "1"}).code, 2) << "--keep needs --dated";
  EXPECT_EQ(Qxctl({"report", "restore", second["backup"], "--apply", "--consume"}).code, 5);
  EXPECT_EQ(SchemaFaults(), "");
}

TEST_F(QxctlBackups, SignalRemovesTheExpandedFiles) {
  fs::create_directories(ReportPath("disk/a/b"));
  MakeReport("disk/a/b/sda", 3, {"a"});
  WriteFile(ReportPath("zeros"), "");
  fs::resize_file(ReportPath("zeros"), std::uintmax_t{128} * 1024 * 1024);
  const std::string backup = CompressedBackup();
  fs::create_directory(tmp_);
  for (const char* const command : {"restore", "verify-backup"}) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(std::string(command) + " " + std::to_string(signal));
      bool is_ended = false;
      for (int tries = 0; tries < 10 && !is_ended; ++tries) {
        is_ended = EndWhileItExpands(command, backup, signal);
        EXPECT_TRUE(fs::is_empty(tmp_));
      }
      EXPECT_TRUE(is_ended);
    }
  }
}

}  // namespace qx::test
