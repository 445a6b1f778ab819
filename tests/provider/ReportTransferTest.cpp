#include "provider/ReportTransfer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/provider/TransferFixture.h"

namespace {

using qx::test::AppendRecords;
using qx::test::NoMoreRecords;
using qx::test::NotReadable;
using qx::test::ReadFile;
using qx::test::Records;
using qx::test::Reply;
using qx::test::ServiceThread;
using qx::test::WriteFile;

class ReportTransfer : public qx::test::TransferFixture {
 protected:
  // A store whose data file is exactly `data`. Its ring has slots with these offsets and is not full.
  void WriteStore(const std::string& name, const std::string& data, const std::vector<std::uint32_t>& offsets) {
    qx::report::IndexHeader header;
    header.maxRecord = 100;
    header.highestIndex = static_cast<std::uint32_t>(offsets.size());
    std::string index(reinterpret_cast<const char*>(&header), sizeof header);
    index.append(reinterpret_cast<const char*>(offsets.data()), offsets.size() * sizeof offsets[0]);
    WriteFile(BasePath(name) + ".ind", index);
    WriteFile(BasePath(name) + ".dat", data);
  }
};

const std::vector<std::string> kFive = {"a", "b", "c", "d", "e"};

TEST_F(ReportTransfer, FiveRecordsComeInOneReplyAndTheNextCallEndsTheTransfer) {
  Append("r1", 10, kFive);
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0), Records("r1", 0, 5, "a\r\nb\r\nc\r\nd\r\ne\r\n"));
  EXPECT_EQ(thread.Ask("r1", 5), NoMoreRecords());
}

TEST_F(ReportTransfer, RecordLimitCutsTheReplyAndNextIndexContinues) {
  Append("r1", 10, kFive);
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0, 2), Records("r1", 0, 2, "a\r\nb\r\n"));
  EXPECT_EQ(thread.Ask("r1", 2, 2), Records("r1", 2, 4, "c\r\nd\r\n"));
  EXPECT_EQ(thread.Ask("r1", 4, 2), Records("r1", 4, 5, "e\r\n"));
  EXPECT_EQ(thread.Ask("r1", 5, 2), NoMoreRecords());
}

TEST_F(ReportTransfer, RecordLimitOfZeroReturnsNothing) {
  Append("r1", 10, kFive);
  EXPECT_EQ(ServiceThread().Ask("r1", 0, 0), NoMoreRecords());
}

TEST_F(ReportTransfer, QuirkNegativeRecordLimitIsNoLimit) {
  Append("r1", 10, kFive);
  EXPECT_EQ(ServiceThread().Ask("r1", 0, -2), Records("r1", 0, 5, "a\r\nb\r\nc\r\nd\r\ne\r\n"));
  EXPECT_EQ(ServiceThread().Ask("r1", 3, -2147483647 - 1), Records("r1", 3, 5, "d\r\ne\r\n"));
}

TEST_F(ReportTransfer, ThirdRecordOf400000BytesIsLeftForTheNextCall) {
  const std::string big(400000, 'q');
  Append("r1", 10, {big + "1", big + "2", big + "3"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0), Records("r1", 0, 2, big + "1\r\n" + big + "2\r\n"));
  EXPECT_EQ(thread.Ask("r1", 2), Records("r1", 2, 3, big + "3\r\n"));
}

TEST_F(ReportTransfer, ReplyHasLessThanOneMebibyteOfText) {
  const std::string half(0x80000 - 2, 'h');
  Append("exact", 10, {half, half});
  EXPECT_EQ(ServiceThread().Ask("exact", 0), Records("exact", 0, 1, half + "\r\n"));
  Append("below", 10, {half, half.substr(1)});
  EXPECT_EQ(ServiceThread().Ask("below", 0), Records("below", 0, 2, half + "\r\n" + half.substr(1) + "\r\n"));
}

TEST_F(ReportTransfer, RecordOfOneMebibyteEndsTheTransfer) {
  const std::string longest(0x100000 - 3, 'l');
  Append("fits", 10, {longest, "x"});
  EXPECT_EQ(ServiceThread().Ask("fits", 0), Records("fits", 0, 1, longest + "\r\n"));
  Append("big", 10, {"x", longest + "l", "y"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("big", 0), Records("big", 0, 1, "x\r\n"));
  EXPECT_EQ(thread.Ask("big", 1), NoMoreRecords());
  EXPECT_EQ(thread.Ask("big", 2), Records("big", 2, 3, "y\r\n"));
}

TEST_F(ReportTransfer, ChunkLimitCountsTheTextBeforeANul) {
  const std::string data = std::string("cut\0", 4) + std::string(0x200000, 'z') + "\r\nb\r\n";
  WriteStore("r1", data, {0, 0x200000 + 6});
  EXPECT_EQ(ServiceThread().Ask("r1", 0), Records("r1", 0, 2, "cutb\r\n"));
}

TEST_F(ReportTransfer, RecordsAreReturnedAsTheStoreReadsThem) {
  WriteStore("r1", std::string("a\nhidden\r\nb\xffhidden\r\nend"), {0, 10, 20, 1000});
  EXPECT_EQ(ServiceThread().Ask("r1", 0), Records("r1", 0, 4,
                                                  "a\nb\xff"
                                                  "end\xff\xff"));
}

TEST_F(ReportTransfer, FullRingIsReadFromItsOldestSlotOn) {
  Append("r1", 4, {"1", "2", "3", "4", "5", "6"});  // slots hold 5 6 3 4, the oldest is slot 2
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0), Records("r1", 0, 4, "3\r\n4\r\n5\r\n6\r\n"));
  EXPECT_EQ(thread.Ask("r1", 2), Records("r1", 2, 4, "5\r\n6\r\n"));
}

TEST_F(ReportTransfer, QuirkNegativeStartIndexIsMappedLikeAnyOther) {
  Append("turned", 5, {"1", "2", "3", "4", "5", "6", "7", "8"});  // slots hold 6 7 8 4 5, the oldest is slot 3
  EXPECT_EQ(ServiceThread().Ask("turned", -1), Records("turned", -1, 5, "8\r\n4\r\n5\r\n6\r\n7\r\n8\r\n"));
  EXPECT_EQ(ServiceThread().Ask("turned", -3, 1), Records("turned", -3, -2, "6\r\n"));
  Append("filling", 10, kFive);
  EXPECT_EQ(ServiceThread().Ask("filling", -1), NoMoreRecords());
}

TEST_F(ReportTransfer, SlotIsReducedByTheRingSizeOnlyOnce) {
  Append("r1", 4, {"1", "2", "3", "4"});
  std::string index = ReadFile(BasePath("r1") + ".ind");
  index[20] = 9;  // the oldest index of a damaged file
  WriteFile(BasePath("r1") + ".ind", index);
  EXPECT_EQ(ServiceThread().Ask("r1", 0), NoMoreRecords());
  EXPECT_EQ(ServiceThread().Ask("r1", -8, 2), Records("r1", -8, -6, "2\r\n3\r\n"));
}

TEST_F(ReportTransfer, IndexAttributesAreDecimalAndCutTo32Bits) {
  Append("r1", 10, kFive);
  const auto ask = [](const std::string& attributes) {
    return ServiceThread().GetReports("<ReportData Name=\"r1\" " + attributes + "/>");
  };
  const Reply all = Records("r1", 0, 5, "a\r\nb\r\nc\r\nd\r\ne\r\n");
  EXPECT_EQ(ask(""), all);
  EXPECT_EQ(ask("StartIndex=\"\" NrRecords=\"\""), all);
  EXPECT_EQ(ask("StartIndex=\"none\""), all);
  EXPECT_EQ(ask("StartIndex=\"0x3\""), all);
  EXPECT_EQ(ask("StartIndex=\" +3rd\""), Records("r1", 3, 5, "d\r\ne\r\n"));
  EXPECT_EQ(ask("StartIndex=\"010\""), NoMoreRecords());
  EXPECT_EQ(ask("StartIndex=\"4294967299\""), Records("r1", 3, 5, "d\r\ne\r\n"));
  EXPECT_EQ(ask("NrRecords=\"none\""), NoMoreRecords());
  EXPECT_EQ(ask("NrRecords=\"4294967297\""), Records("r1", 0, 1, "a\r\n"));
  EXPECT_EQ(ask("StartIndex=\"99999999999999999999\""), NoMoreRecords());  // LONG_MAX, of which -1 is left
}

TEST_F(ReportTransfer, QuirkMarkupInANameIsEscapedTwice) {
  Append("a&b", 10, {"x"});
  EXPECT_EQ(ServiceThread().Ask("a&amp;b", 0), Records("a&amp;amp;b", 0, 1, "x\r\n"));
  Append("\x01'\xe4", 10, {"x"});
  EXPECT_EQ(ServiceThread().Ask("\x01'\xe4", 0), Records("&amp;#x01;&amp;apos;&amp;#xE4;", 0, 1, "x\r\n"));
}

TEST_F(ReportTransfer, MissingReportIsNamedWithTheErrorNumber) {
  EXPECT_EQ(ServiceThread().Ask("none", 0), NotReadable("none", 2));
  EXPECT_EQ(ServiceThread().Ask("x&amp;y", 0), NotReadable("x&amp;amp;y", 2));
}

TEST_F(ReportTransfer, StoreWithOneFileIsNotReadable) {
  WriteFile(BasePath("r1") + ".ind", std::string(24, '\0'));
  EXPECT_EQ(ServiceThread().Ask("r1", 0), NotReadable("r1", 2));
}

TEST_F(ReportTransfer, ErrorNumberIsThatOfTheFailedOpen) {
  std::filesystem::create_directory(BasePath("r1") + ".ind");
  EXPECT_EQ(ServiceThread().Ask("r1", 0), NotReadable("r1", 22));
  EXPECT_EQ(ServiceThread().Ask(std::string(300, 'n'), 0), NotReadable(std::string(300, 'n'), 36));
}

TEST_F(ReportTransfer, NameOutsideTheReportDirectoryDoesNotExist) {
  std::filesystem::create_directory(BasePath("sub"));
  const qx::test::ReportRoot inner(BasePath("sub"));
  Append("r1", 10, {"outside"});
  Append("sub/", 10, {"nameless"});
  Append("sub/...", 10, {"three dots"});
  Append("sub/a..b", 10, {"two dots inside"});
  EXPECT_EQ(ServiceThread().Ask("../r1", 0), NotReadable("../r1", 2));
  EXPECT_EQ(ServiceThread().Ask("x/../../r1", 0), NotReadable("x/../../r1", 2));
  EXPECT_EQ(ServiceThread().Ask("..", 0), NotReadable("..", 2));
  EXPECT_EQ(ServiceThread().Ask("a..b/..", 0), NotReadable("a..b/..", 2));
  EXPECT_EQ(ServiceThread().Ask("...", 0), Records("...", 0, 1, "three dots\r\n"));
  EXPECT_EQ(ServiceThread().Ask("a..b", 0), Records("a..b", 0, 1, "two dots inside\r\n"));
}

TEST_F(ReportTransfer, EmptyNameIsUsedUnchanged) {
  EXPECT_EQ(ServiceThread().Ask("", 0), NotReadable("", 2));
  EXPECT_EQ(ServiceThread().GetReports("not XML"), NotReadable("", 2));
  Append("", 10, {"nameless"});
  EXPECT_TRUE(qx::test::Exists(directory_.Path() + "/.dat"));
  EXPECT_EQ(ServiceThread().Ask("", 0), Records("", 0, 1, "nameless\r\n"));
  EXPECT_EQ(ServiceThread().GetReports("not XML"), Records("", 0, 1, "nameless\r\n"));
}

TEST_F(ReportTransfer, ReportMayBeInASubdirectory) {
  std::filesystem::create_directory(BasePath("sub"));
  Append("sub/r1", 10, {"x"});
  EXPECT_EQ(ServiceThread().Ask("sub/r1", 0), Records("sub/r1", 0, 1, "x\r\n"));
  EXPECT_EQ(ServiceThread().Ask("/sub/r1", 0), Records("/sub/r1", 0, 1, "x\r\n"));
}

TEST_F(ReportTransfer, StoreWithoutRecordsReadsAsEmpty) {
  Append("created", 10, {});
  EXPECT_EQ(ServiceThread().Ask("created", 0), NoMoreRecords());
  WriteFile(BasePath("short") + ".ind", std::string(23, '\x05'));
  WriteFile(BasePath("short") + ".dat", "a\r\n");
  EXPECT_EQ(ServiceThread().Ask("short", 0), NoMoreRecords());
}

TEST_F(ReportTransfer, AppendedRecordsAreOnlyInTheNextTransfer) {
  Append("r1", 10, {"a", "b"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0, 1), Records("r1", 0, 1, "a\r\n"));
  Append("r1", 10, {"c"});
  EXPECT_EQ(thread.Ask("r1", 1), Records("r1", 1, 2, "b\r\n"));
  EXPECT_EQ(thread.Ask("r1", 2), NoMoreRecords());
  EXPECT_EQ(thread.Ask("r1", 0), Records("r1", 0, 3, "a\r\nb\r\nc\r\n"));
}

TEST_F(ReportTransfer, RecordsReplacedDuringATransferAreReturnedAsTheyAreNow) {
  Append("r1", 3, {"a", "b", "c"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0, 1), Records("r1", 0, 1, "a\r\n"));
  Append("r1", 3, {"d", "e"});  // into the slots of a and b
  EXPECT_EQ(thread.Ask("r1", 1), Records("r1", 1, 3, "e\r\nc\r\n"));
}

TEST_F(ReportTransfer, StartIndexOfZeroAlwaysStartsANewTransfer) {
  Append("r1", 10, kFive);
  Append("r2", 10, {"other"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0, 2), Records("r1", 0, 2, "a\r\nb\r\n"));
  EXPECT_EQ(thread.Ask("r1", 0, 1), Records("r1", 0, 1, "a\r\n"));
  EXPECT_EQ(thread.Ask("r2", 0), Records("r2", 0, 1, "other\r\n"));
}

TEST_F(ReportTransfer, QuirkLaterCallReadsTheOpenReportWhateverItsName) {
  Append("r1", 10, kFive);
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0, 2), Records("r1", 0, 2, "a\r\nb\r\n"));
  EXPECT_EQ(thread.Ask("none", 2, 1), Records("none", 2, 3, "c\r\n"));
}

TEST_F(ReportTransfer, FirstCallOfAThreadOpensTheReportAtAnyStartIndex) {
  Append("r1", 10, kFive);
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 3), Records("r1", 3, 5, "d\r\ne\r\n"));
  EXPECT_EQ(ServiceThread().Ask("none", 3), NotReadable("none", 2));
}

TEST_F(ReportTransfer, FailedOpenIsNotRepeatedBeforeTheNextTransfer) {
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0), NotReadable("r1", 2));
  Append("r1", 10, kFive);
  EXPECT_EQ(thread.Ask("r1", 1), NoMoreRecords());
  EXPECT_EQ(thread.Ask("r1", 0, 1), Records("r1", 0, 1, "a\r\n"));
}

TEST_F(ReportTransfer, FailedOpenLeavesNoRecordsOfTheEarlierTransfer) {
  Append("r1", 10, kFive);
  WriteFile(BasePath("half") + ".ind", ReadFile(BasePath("r1") + ".ind"));
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0, 1), Records("r1", 0, 1, "a\r\n"));
  EXPECT_EQ(thread.Ask("half", 0), NotReadable("half", 2));
  EXPECT_EQ(thread.Ask("r1", 1), NoMoreRecords());
  EXPECT_EQ(thread.Ask("r1", 0, 1), Records("r1", 0, 1, "a\r\n"));
  EXPECT_EQ(thread.Ask("../r1", 0), NotReadable("../r1", 2));  // is not even tried
  EXPECT_EQ(thread.Ask("r1", 1), NoMoreRecords());
}

TEST_F(ReportTransfer, EndOfACdataSectionInARecordIsSplit) {
  Append("r1", 10, {"x]]>y", "]]", ">"});
  EXPECT_EQ(ServiceThread().Ask("r1", 0), Records("r1", 0, 3, "x]]]]><![CDATA[>y\r\n]]\r\n>\r\n"));
}

TEST_F(ReportTransfer, EveryCallIsCountedWhateverItsOutcome) {
  Append("r1", 10, kFive);
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("none", 0).result, 12);
  EXPECT_EQ(thread.Data()->state_word, 1U);
  EXPECT_EQ(thread.Ask("r1", 4).result, 1);
  EXPECT_EQ(thread.Data()->state_word, 2U);
  EXPECT_EQ(thread.Ask("r1", 0).result, 0);
  EXPECT_EQ(thread.Data()->state_word, 1U);
  EXPECT_EQ(thread.Ask("r1", 2).result, 0);
  EXPECT_EQ(thread.GetReports("<Other/>").result, 12);
  EXPECT_EQ(thread.Data()->state_word, 1U);  // without an attribute the start index is 0
}

TEST_F(ReportTransfer, SnapshotIsKeptInTheThreadData) {
  Append("r1", 4, {"1", "2", "3", "4", "5", "6"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r1", 0).result, 0);
  EXPECT_EQ(thread.Data()->data_file_size, static_cast<std::int64_t>(ReadFile(BasePath("r1") + ".dat").size()));
  EXPECT_EQ(thread.Data()->oldest_index, 2);
  EXPECT_EQ(thread.Data()->highest_index, 4);
}

class RingDuringTransfer : public qx::test::TransferInRace {
 protected:
  using Path = qx::provider::TransferOptions::Path;
};

// Two billion slots, which the index file does not have. Each is a record that is empty because its first byte is NUL.
TEST_F(RingDuringTransfer, DamagedHeaderIsAnsweredAtOnceInEveryWayOfReading) {
  qx::report::IndexHeader header;
  header.maxRecord = header.highestIndex = 0x7FFFFFFF;
  WriteFile(BasePath("r1") + ".ind", std::string(reinterpret_cast<const char*>(&header), sizeof header));
  WriteFile(BasePath("r1") + ".dat", std::string("\0x\r\n", 4));
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    CThreadData data;
    EXPECT_EQ(Ask([] {}, 0, path, data), NoMoreRecords());
  }
}

TEST_F(RingDuringTransfer, AdvancedRingIsReadAgainFromItsOldestRecord) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 3, {"1", "2", "3"});
    CThreadData data;
    EXPECT_EQ(Ask([&] { Append("r1", 3, {"4"}); }, 0, path, data), Records("r1", 0, 3, "2\r\n3\r\n4\r\n"));
    EXPECT_EQ(data.oldest_index, 1);
    EXPECT_EQ(data.highest_index, 3);
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

TEST_F(RingDuringTransfer, RingIsCheckedOnce) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 3, {"1", "2", "3"});
    CThreadData data;
    int checks = 0;
    EXPECT_EQ(Ask([&] { Append("r1", 3, {std::to_string(4 + checks++)}); }, 0, path, data).result, 0);
    EXPECT_EQ(checks, 1);
    EXPECT_EQ(Ask([&] { ++checks; }, 1, path, data).result, 0);
    EXPECT_EQ(checks, 1);
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

TEST_F(RingDuringTransfer, RecordAppendedToARingThatIsNotFullChangesNothing) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 5, {"1", "2"});
    CThreadData data;
    EXPECT_EQ(Ask([&] { Append("r1", 5, {"3"}); }, 0, path, data), Records("r1", 0, 2, "1\r\n2\r\n"));
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

TEST_F(RingDuringTransfer, AfterAFailedReopenTheFirstRecordIsUsedAndTheNextReadFails) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 5, {"1", "2", "3"});
    CThreadData data;
    EXPECT_EQ(Ask([&] { std::filesystem::remove(BasePath("r1") + ".ind"); }, 0, path, data),
              Records("r1", 0, 1, "1\r\n"));
    EXPECT_EQ(Ask([] {}, 1, path, data), NotReadable("r1", 2));
    EXPECT_EQ(Ask([] {}, 2, path, data), NotReadable("r1", 2));
    EXPECT_EQ(Ask([] {}, 3, path, data), NoMoreRecords());
    EXPECT_EQ(data.state_word, 4U);
  }
}

// The next transfer is independent of this one, even if its report cannot be opened either.
TEST_F(RingDuringTransfer, FailedReopenIsForgottenByTheNextTransfer) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 5, {"1", "2", "3"});
    CThreadData data;
    const auto remove = [&] { std::filesystem::remove(BasePath("r1") + ".ind"); };
    EXPECT_EQ(Ask(remove, 0, path, data).result, 0);
    EXPECT_EQ(Ask([] {}, 0, path, data), NotReadable("r1", 2));
    EXPECT_EQ(Ask([] {}, 1, path, data), NoMoreRecords());
    Append("r1", 5, {"1", "2"});
    EXPECT_EQ(Ask([] {}, 0, path, data), Records("r1", 0, 2, "1\r\n2\r\n"));
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

TEST_F(RingDuringTransfer, FirstRecordThatCannotBeReadIsNotReadAgain) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 3, {"1", "2", "3"});
    CThreadData data;
    EXPECT_EQ(Ask([&] { Append("r1", 3, {"4"}); }, -1, path, data), NoMoreRecords());  // oldest 0: no such slot
    EXPECT_EQ(data.oldest_index, 1);
    EXPECT_EQ(Ask([] {}, -1, path, data), Records("r1", -1, 3, "4\r\n2\r\n3\r\n4\r\n"));
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

TEST_F(RingDuringTransfer, ReopenShowsTheFilesAsTheyAreNow) {
  for (const Path path : {Path::kSingly, Path::kInRuns, Path::kIntoReply}) {
    Append("r1", 5, {"1", "2", "3"});
    CThreadData data;
    const auto restart = [&] {
      std::filesystem::remove(BasePath("r1") + ".ind");
      Append("r1", 5, {"first", "second"});
    };
    EXPECT_EQ(Ask(restart, 0, path, data), Records("r1", 0, 2, "1\r\nsecond\r\n"));
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

}  // namespace
