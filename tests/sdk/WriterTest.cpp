// Tests the writer of a report: the records that it refuses, that nothing is written then, and that its files are those
// of CReportFileBase.
#include "sdk/Writer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/File.h"
#include "provider/ReportTransfer.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/Attacker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::IndexHeader;
using testing::ElementsAre;
using testing::HasSubstr;

static_assert(kRecordTextMax + report::kLineEnd.size() == provider::kChunkLimitBytes - 1,
              "the longest record of a reply");

std::string BytesOf(const StoreFiles& files) { return files.IndexBytes() + "|" + files.DataBytes(); }

class SdkWriter : public testing::Test {
 protected:
  void MakeReport() {
    ASSERT_FALSE(writer_.Open(files_.Base(), 3).Failed());
    ASSERT_FALSE(writer_.Append("a").Failed());
  }

  StoreFiles files_;
  Writer writer_;
};

struct BadText {
  const char* name;
  std::string text;
  ErrorCode code;
  const char* reason;
};

const BadText kBadTexts[] = {
    {"line feed", "one\ntwo", ErrorCode::kBadText, "a record contains a line feed at offset 3"},
    {"line feed at the end", "one\n", ErrorCode::kBadText, "a line feed at offset 3"},
    {"NUL", std::string("a\0b", 3), ErrorCode::kBadText, "a NUL at offset 1"},
    {"byte 0xFF", "\xFF", ErrorCode::kBadText, "a byte 0xFF at offset 0"},
    {"longer than a reply", std::string(kRecordTextMax + 1, 'x'), ErrorCode::kTooLong,
     "a record of 1048574 bytes is too long; at most 1048573"},
};

TEST_F(SdkWriter, TextsThatCannotBeReadBackAreRefusedAndNothingIsWritten) {
  MakeReport();
  const std::string before = BytesOf(files_);
  for (const BadText& bad : kBadTexts) {
    SCOPED_TRACE(bad.name);
    const Error single = writer_.Append(bad.text);
    EXPECT_EQ(single.code, bad.code);
    EXPECT_THAT(single.text, HasSubstr(bad.reason));
    const Error batch = writer_.Append({"good", "good, too", bad.text, "good again"});
    EXPECT_EQ(batch.code, bad.code);
    EXPECT_THAT(batch.text, HasSubstr(bad.reason));
    EXPECT_EQ(batch.record, 2U);
    EXPECT_EQ(BytesOf(files_), before);
  }
}

TEST_F(SdkWriter, TheLongestTextIsReadBack) {
  MakeReport();
  const std::string longest(kRecordTextMax, 'x');
  ASSERT_FALSE(writer_.Append(longest).Failed());
  EXPECT_THAT(ReadAll(files_), ElementsAre("a\r\n", longest + "\r\n"));
}

TEST_F(SdkWriter, WriterThatIsNotOpenRefusesRecords) {
  EXPECT_EQ(writer_.Append("x").code, ErrorCode::kNotOpen);
  MakeReport();
  const std::string before = BytesOf(files_);
  writer_.Close();
  for (const Error& error : {writer_.Append("x"), writer_.Append({"x", "y"})}) {
    EXPECT_EQ(error.code, ErrorCode::kNotOpen);
    EXPECT_EQ(error.text, "no report is open");
  }
  EXPECT_FALSE(writer_.IsOpen());
  EXPECT_EQ(BytesOf(files_), before);
}

TEST_F(SdkWriter, ArgumentsThatMakeNoReportAreRefused) {
  EXPECT_EQ(writer_.Open("", 3).code, ErrorCode::kBadArgument);
  EXPECT_EQ(writer_.Open(std::string("a\0b", 3), 3).code, ErrorCode::kBadArgument);
  EXPECT_EQ(writer_.Open(files_.Base(), 0).code, ErrorCode::kBadArgument);
  const Error error = writer_.Open(files_.Base(), report::kMaxRecordUnlimited + 1);
  EXPECT_EQ(error.code, ErrorCode::kBadArgument);
  EXPECT_THAT(error.text, HasSubstr("a ring of 1073741824 records"));
  EXPECT_FALSE(Exists(files_.IndexPath()));
  EXPECT_FALSE(Exists(files_.DataPath()));
}

TEST_F(SdkWriter, MissingDirectoryIsNamedWithItsError) {
  const Error error = writer_.Open(files_.Base() + "/none/r", 3);
  EXPECT_EQ(error.code, ErrorCode::kSystem);
  EXPECT_EQ(error.system_error, ENOENT);
  EXPECT_EQ(error.text, "cannot create " + files_.Base() + "/none/r.ind: No such file or directory");
}

TEST_F(SdkWriter, OpenExistingCreatesNothing) {
  const Error error = writer_.OpenExisting(files_.Base());
  EXPECT_EQ(error.code, ErrorCode::kNotFound);
  EXPECT_THAT(error.text, HasSubstr("there is no "));
  EXPECT_FALSE(Exists(files_.IndexPath()));
}

// CReportFileBase would empty the other file.
TEST_F(SdkWriter, ReportOfWhichOneFileIsMissingIsNotStartedOver) {
  MakeReport();
  writer_.Close();
  const std::string data = files_.DataBytes();
  ASSERT_EQ(unlink(files_.IndexPath().c_str()), 0);
  const Error error = writer_.Open(files_.Base(), 3);
  EXPECT_EQ(error.code, ErrorCode::kDamaged);
  EXPECT_THAT(error.text, HasSubstr("there is no " + files_.IndexPath() + ", but " + files_.DataPath()));
  EXPECT_EQ(files_.DataBytes(), data);
  EXPECT_FALSE(Exists(files_.IndexPath()));
}

TEST_F(SdkWriter, CreationThatWasInterruptedIsContinued) {
  WriteFile(files_.IndexPath(), "");
  MakeReport();
  EXPECT_EQ(writer_.RingSize(), 3U);
  EXPECT_THAT(ReadAll(files_), ElementsAre("a\r\n"));
}

TEST_F(SdkWriter, DamagedHeaderIsRefused) {
  files_.Make({0, 0, 5, 0, 0, 0}, {}, "");
  const std::string before = BytesOf(files_);
  const Error error = writer_.Open(files_.Base(), 3);
  EXPECT_EQ(error.code, ErrorCode::kDamaged);
  EXPECT_THAT(error.text, HasSubstr("its header contradicts itself"));
  EXPECT_EQ(BytesOf(files_), before);
  EXPECT_EQ(writer_.Append("x").code, ErrorCode::kNotOpen);
}

TEST_F(SdkWriter, SecondWriterOfThisProcessIsRefused) {
  MakeReport();
  const std::string before = BytesOf(files_);
  Writer second;
  const Error error = second.Open(files_.Base(), 3);
  EXPECT_EQ(error.code, ErrorCode::kOtherWriter);
  EXPECT_THAT(error.text, HasSubstr("is written by this process"));
  EXPECT_EQ(second.Append("x").code, ErrorCode::kNotOpen);
  EXPECT_EQ(BytesOf(files_), before);
  writer_.Close();
  EXPECT_FALSE(second.Open(files_.Base(), 3).Failed());
}

TEST_F(SdkWriter, SecondWriterNamesTheOtherProcess) {
  CReportFileBase agent;
  for (const bool is_new : {true, false}) {
    SCOPED_TRACE(is_new);
    const WaitingChild child(
        [&] { return is_new ? !writer_.Open(files_.Base(), 3).Failed() : agent.Open(files_.Path(), 3); });
    Writer second;
    const Error error = second.Open(files_.Base(), 3);
    EXPECT_EQ(error.code, ErrorCode::kOtherWriter);
    EXPECT_THAT(error.text, HasSubstr("is written by process " + std::to_string(child.Id())));
  }
}

// Another process has created the index file and did not take its lock yet.
TEST_F(SdkWriter, OfTwoWritersThatCreateAReportTheOneWithTheLockOpensIt) {
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t other = fork();
  if (other == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const BeforeTheCall wait(FileCall::kClose, "", [&] {
      (void)!write(ready[1], "x", 1);
      for (;;) pause();
    });
    (void)writer_.Open(files_.Base(), 3);
    _exit(1);
  }
  close(ready[1]);
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_TRUE(Exists(files_.IndexPath()));
  EXPECT_EQ(writer_.Open(files_.Base(), 3).text, "");
  close(ready[0]);
  kill(other, SIGKILL);
  EXPECT_EQ(waitpid(other, nullptr, 0), other);
}

TEST_F(SdkWriter, ReportThatAnotherWriterCreatesMeanwhileIsNotDamaged) {
  Writer other;
  const BeforeTheCall create(FileCall::kStatusAt, ".dat", [&] {
    EXPECT_FALSE(other.Open(files_.Base(), 3).Failed());
    EXPECT_FALSE(other.Append("a").Failed());
  });
  const Error error = writer_.Open(files_.Base(), 3);
  EXPECT_EQ(error.code, ErrorCode::kOtherWriter) << error.text;
  EXPECT_THAT(ReadAll(files_), ElementsAre("a\r\n"));
}

// The other writer opens the report after the search for writers.
TEST_F(SdkWriter, WithoutLocksAWriterThatOpensMeanwhileIsNoticed) {
  MakeReport();
  writer_.Close();
  const FailingCall no_locks({.call = FileCall::kLock, .times = kAlways, .error = ENOLCK});
  std::optional<WaitingChild> other;
  CReportFileBase agent;
  const BeforeTheCall open(FileCall::kOpen, ".dat",
                           [&] { other.emplace([&] { return agent.Open(files_.Path(), 3); }); });
  const Error error = writer_.Open(files_.Base(), 3);
  EXPECT_EQ(error.code, ErrorCode::kOtherWriter) << error.text;
  ASSERT_TRUE(other.has_value());
  EXPECT_THAT(error.text, HasSubstr("is written by process " + std::to_string(other->Id())));
  other.reset();
  EXPECT_FALSE(writer_.Open(files_.Base(), 3).Failed());
}

TEST_F(SdkWriter, FileThatMayNotBeWrittenIsNamed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, which becomes an ordinary user";
  MakeReport();
  writer_.Close();
  const std::string before = BytesOf(files_);
  ASSERT_EQ(chmod(file::DirectoryOf(files_.Base()).c_str(), 0755), 0);
  EXPECT_TRUE(AsOrdinaryUser([&] {
    const Error error = writer_.Open(files_.Base(), 3);
    return error.code == ErrorCode::kSystem && error.system_error == EACCES &&
           error.text == "cannot open " + files_.Base() + ": Permission denied";
  }));
  EXPECT_EQ(BytesOf(files_), before);
}

TEST_F(SdkWriter, FullDiskKeepsTheRecordsBeforeIt) {
  MakeReport();
  const std::string before = files_.IndexBytes();
  {
    const FailingCall fault({.call = FileCall::kWriteAt, .times = kAlways, .error = ENOSPC});
    const Error error = writer_.Append({"b", "c"});
    EXPECT_EQ(error.code, ErrorCode::kSystem);
    EXPECT_EQ(error.system_error, ENOSPC);
    EXPECT_EQ(error.record, 0U);
    EXPECT_EQ(error.text, "cannot append to " + files_.Base() + ": No space left on device");
  }
  EXPECT_EQ(files_.IndexBytes(), before);
  EXPECT_FALSE(writer_.Append({"d", "e"}).Failed());
  EXPECT_THAT(ReadAll(files_), ElementsAre("a\r\n", "d\r\n", "e\r\n"));
}

TEST_F(SdkWriter, FullDiskAtTheCreationIsAnError) {
  const FailingCall fault({.call = FileCall::kWriteAt, .times = kAlways, .error = ENOSPC});
  const Error error = writer_.Open(files_.Base(), 3);
  EXPECT_EQ(error.system_error, ENOSPC);
  EXPECT_EQ(error.text, "cannot write " + files_.IndexPath() + ": No space left on device");
  EXPECT_FALSE(writer_.IsOpen());
}

// CReportFileBase would let the write position wrap to the beginning of the file.
TEST_F(SdkWriter, DataFileAtFourGibIsFull) {
  constexpr std::uint32_t kNearEnd = 0xFFFFFFFF - 20;
  files_.Make({kNearEnd, kNearEnd, 2, 9, 2, 0}, {0, 3}, "a\r\nb\r\n");
  ASSERT_FALSE(writer_.Open(files_.Base(), 9).Failed());
  const Error error = writer_.Append({"one", "two", "three"});
  EXPECT_EQ(error.code, ErrorCode::kFull);
  EXPECT_EQ(error.record, 2U);
  EXPECT_THAT(error.text, HasSubstr(files_.DataPath() + " is full"));
  EXPECT_EQ(files_.Header(), (IndexHeader{kNearEnd + 10, kNearEnd + 10, 4, 9, 4, 0}));
  EXPECT_EQ(writer_.Append("four").code, ErrorCode::kFull);
}

TEST_F(SdkWriter, DataFileThatRestartsInTheBatchIsNotFull) {
  constexpr std::uint32_t kNearEnd = 0xFFFFFFFF - 20;
  files_.Make({kNearEnd, kNearEnd, 17, 9, 9, 8}, {0, 3, 6, 9, 12, 15, 18, 21, 24}, "a\r\nb\r\n");
  ASSERT_FALSE(writer_.Open(files_.Base(), 9).Failed());
  EXPECT_FALSE(writer_.Append({"one", "two", "three", "four"}).Failed());
  EXPECT_EQ(files_.Header(), (IndexHeader{18, kNearEnd + 5, 21, 9, 9, 3}));
}

TEST_F(SdkWriter, ExistingReportKeepsItsRingSize) {
  MakeReport();
  ASSERT_FALSE(writer_.Open(files_.Base(), 50).Failed());
  EXPECT_EQ(writer_.RingSize(), 3U);
  writer_.Close();
  EXPECT_EQ(writer_.RingSize(), 0U);
}

TEST_F(SdkWriter, NewReportKeepsItsRingSizeWithoutARecord) {
  ASSERT_FALSE(writer_.Open(files_.Base(), 3).Failed());
  ASSERT_FALSE(writer_.Open(files_.Base(), 50).Failed());
  EXPECT_EQ(writer_.RingSize(), 3U);
  // A report that an agent created and never wrote has no ring size yet.
  const StoreFiles others;
  CReportFileBase agent;
  ASSERT_TRUE(agent.Open(others.Path(), 7));
  agent.Close();
  ASSERT_FALSE(writer_.Open(others.Base(), 50).Failed());
  EXPECT_EQ(writer_.RingSize(), 50U);
}

TEST_F(SdkWriter, BatchesAndSinglesLeaveTheFilesOfTheClassBelow) {
  std::mt19937_64 random(Seed("SdkWriter"));
  for (int life = 0; life < 60; ++life) {
    const StoreFiles files;
    const StoreFiles single_files;
    Writer writer;
    CReportFileBase single;
    const auto slots = static_cast<unsigned>(1 + random() % 40);
    ASSERT_FALSE(writer.Open(files.Base(), slots).Failed());
    ASSERT_TRUE(single.Open(single_files.Path(), slots));
    for (int step = 0; step < 10; ++step) {
      std::vector<std::string> texts(random() % 60);
      for (std::string& text : texts) text.assign(random() % 30, static_cast<char>('a' + random() % 26));
      ASSERT_FALSE(writer.Append(texts).Failed());
      ASSERT_FALSE(writer.Append("single").Failed());
      texts.emplace_back("single");
      for (const std::string& text : texts) ASSERT_TRUE(single.writeLine(text.c_str()));
      ASSERT_EQ(BytesOf(files), BytesOf(single_files)) << "life " << life << " step " << step;
    }
  }
}

TEST_F(SdkWriter, PartOfAKilledWriterIsCountedAtTheNextOpen) {
  files_.Make({9, 9, 3, 3, 3, 0}, {9, 12, 6}, "a\r\nb\r\nc\r\nd\r\ne\r\n===>\r\n");
  EXPECT_THAT(ReadAll(files_), ElementsAre("d\r\n", "e\r\n", "c\r\n"));
  ASSERT_FALSE(writer_.Open(files_.Base(), 3).Failed());
  EXPECT_THAT(ReadAll(files_), ElementsAre("c\r\n", "d\r\n", "e\r\n"));
}

TEST(SdkReportPath, IsBelowTheReportDirectory) {
  EXPECT_TRUE(ReportPath("a/load").ends_with("/a/load"));
  EXPECT_EQ(ReportPath("../load"), "");
  EXPECT_EQ(ReportPath("a/.."), "");
}

}  // namespace
}  // namespace qx::test
