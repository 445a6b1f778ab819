// Tests the traces of a call of the report transfer: every line, its position and its level.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "debug/Debug.h"
#include "provider/Low32.h"
#include "tests/provider/TraceLines.h"
#include "tests/provider/TransferFixture.h"
#include "tests/provider/TransferLines.h"

namespace {

using qx::provider::CurrentThreadLow32;
using qx::provider::TransferOptions;
using qx::test::ServiceThread;
using qx::test::TraceCapture;
using qx::test::Upto;
using Lines = qx::test::TraceLines;
using namespace qx::test::transfer;

constexpr int kLevelMax = 6;

// The captured lines without those of the lower layers, with placeholders for addresses and thread ids.
std::string Seen(const TraceCapture& trace, const void* thread_data) {
  char address[32];
  std::snprintf(address, sizeof address, "0x%p", thread_data);
  const std::string thread_id = std::to_string(static_cast<int>(CurrentThreadLow32()));
  std::string text;
  for (const std::string& entry : trace.Entries()) {
    if (entry.starts_with("CRegistry") || entry.starts_with("KrxReqestParams")) continue;
    text += entry + "\n";
  }
  const auto mark = [&text](const std::string& what, const char* as) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos;) text.replace(at, what.size(), as);
  };
  mark(address, "ADDRESS");
  mark("hreadId=" + thread_id, "hreadId=THREAD");
  mark("current thread ID = " + thread_id, "current thread ID = THREAD");
  return text;
}

const Lines kNewThreadData = {
    {2, "WCSP_QX GetReports  : Transfer report data file"},
    {5, "WCSP_QX GetThrdData :   pThreadData = 0x(nil)"},
    {5, "WCSP_QX GetThrdData : no thread data allocated yet => alloc CThreadData structure"},
    {5, "WCSP_QX GetThrdData : CThreadData created, pThreadData = ADDRESS, threadId=THREAD"},
};
const Lines kKeptThreadData = {
    {2, "WCSP_QX GetReports  : Transfer report data file"},
    {5, "WCSP_QX GetThrdData :   pThreadData = ADDRESS"},
    {5, "WCSP_QX GetThrdData : CThreadData exists for this thread (ADDRESS) - use its data, saved threadId=THREAD"},
};
const Lines kBlockIsValid = {
    {4, "WCSP CheckParams    : Check KRX request parameters..."},
    {5, "WCSP CheckParams    :   KRX thread ID = 77, current thread ID = THREAD"},
    {4, "WCSP CheckParams    : All checks OK"},
};
const Lines kNoAuthorization = {
    {3, "WCSP_QX GetReports  :   WS-TRUST security validation data not found - no authorization required"},
};

Lines Input(const std::string& document) {
  return {{4, "WCSP_QX GetReports  :   XML input string: \"" + document + "\""}};
}

class ReportTransferTrace : public qx::test::TransferFixture {
 protected:
  using Before = std::function<void(ServiceThread&)>;

  // Runs `call` on a service thread of its own at every trace level. `before` runs first, without a trace.
  static void Expect(const Lines& lines, const std::function<void(ServiceThread&)>& call, const Before& before = {},
                     const std::vector<const char*>* privileges = nullptr) {
    for (int level = 1; level <= kLevelMax; ++level) {
      const auto thread =
          privileges != nullptr ? std::make_unique<ServiceThread>(*privileges) : std::make_unique<ServiceThread>();
      if (before) before(*thread);
      std::string seen;
      {
        const TraceCapture trace(level);
        call(*thread);
        seen = Seen(trace, thread->Data());
      }
      EXPECT_EQ(seen, Upto(level, lines)) << "level " << level;
    }
  }

  Lines Path(const std::string& name) const { return PathOfReport(BasePath(name)); }
};

TEST_F(ReportTransferTrace, FirstCall) {
  Append("r1", 10, {"a", " \tb c \v"});
  Expect(kNewThreadData + kBlockIsValid + Input("<ReportData Name=\"r1\" StartIndex=\"0\"/>") + kNoAuthorization +
             RequestOf("r1", "72 31   r1", 0) + Path("r1") + OpenedReport("r1", "18 Bytes") + RingIndices(0, 2) +
             ReadEntry(0, 0) + CompareOldest(0) + TakenEntry("a") + ReadEntry(1, 1) + TakenEntry("b c") + EndOfRing() +
             RecordsRead(2, 12) + RepliedRecords("r1", 0, 2, "a\r\n \tb c \v\r\n"),
         [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 0).result, 0); });
}

TEST_F(ReportTransferTrace, LaterCallWithARecordLimit) {
  Append("r1", 10, {"a", "b", "c"});
  Expect(
      kKeptThreadData + kBlockIsValid + Input("<ReportData Name=\"r1\" StartIndex=\"1\" NrRecords=\"1\"/>") +
          kNoAuthorization + RequestOf("r1", "72 31   r1", 1) + RecordLimit(1) + Path("r1") + RingIndices(0, 3) +
          ReadEntry(1, 1) + TakenEntry("b") + ReadEntry(2, 2) +
          Lines{{4, "WCSP_QX GetReports  :   --> number of requested records (1) reached, return now"}} +
          RecordsRead(1, 3) + RepliedRecords("r1", 1, 2, "b\r\n"),
      [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 1, 1).result, 0); },
      [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 0, 1).result, 0); });
}

TEST_F(ReportTransferTrace, EndOfATransfer) {
  Append("r1", 2, {"a", "b", "c"});
  Expect(
      kKeptThreadData + kBlockIsValid + Input("<ReportData Name=\"r1\" StartIndex=\"2\"/>") + kNoAuthorization +
          RequestOf("r1", "72 31   r1", 2) + Path("r1") + RingIndices(1, 2) + EndOfRing() + RecordsRead(0, 0) +
          Lines{{4, "WCSP_QX GetReports  : No more records available"}},
      [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 2).result, 1); },
      [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 0).result, 0); });
}

TEST_F(ReportTransferTrace, FailedOpen) {
  Expect(kNewThreadData + kBlockIsValid + Input("<ReportData Name=\"none\" StartIndex=\"0\"/>") + kNoAuthorization +
             RequestOf("none", "6E 6F 6E 65   none", 0) + Path("none") + NotReadableLine("none"),
         [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("none", 0).result, 12); });
}

TEST_F(ReportTransferTrace, NameOutsideTheReportDirectory) {
  Expect(kNewThreadData + kBlockIsValid + Input("<ReportData Name=\"../r1\" StartIndex=\"0\"/>") + kNoAuthorization +
             RequestOf("../r1", "2E 2E 2F 72 31   ../r1", 0) + Path("../r1") + NotReadableLine("../r1"),
         [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("../r1", 0).result, 12); });
}

TEST_F(ReportTransferTrace, InvalidBlock) {
  for (int level = 1; level <= kLevelMax; ++level) {
    qx::test::BlockBuilder block;
    block.Pointer(1, nullptr);
    KrxRequestParams params(block.Block());
    CMarkup in;
    CMarkup out;
    CFileTransferProvider provider;
    std::string seen;
    {
      const TraceCapture trace(level);
      EXPECT_EQ(provider.GetReports(params, in, out), -1);
      seen = Seen(trace, params.GetProviderSpecificData());
    }
    EXPECT_EQ(seen, Upto(level, kNewThreadData +
                                    Lines{
                                        {4, "WCSP CheckParams    : Check KRX request parameters..."},
                                        {5,
                                         "WCSP CheckParams    :   KRX thread ID = 0, current thread "
                                         "ID = THREAD"},
                                        {1,
                                         "WCSP_SCCI Detach    : ## ERROR! krx_gendata thread id is 0 "
                                         "(0x0D)"},
                                    }))
        << "level " << level;
    provider.__threadend(params.GetProviderSpecificData());
  }
}

TEST_F(ReportTransferTrace, InputWithoutTheElement) {
  Expect(kNewThreadData + kBlockIsValid + Input("<Other/>") +
             Lines{{1,
                    "WCSP_SCCI Detach    : ## ERROR! No valid request data in input XML string (<ReportData> tag "
                    "missing) (0x0D)"}} +
             RequestOf("", "", 0) + Path("") + NotReadableLine(""),
         [](ServiceThread& thread) { EXPECT_EQ(thread.GetReports("<Other/>").result, 12); });
}

TEST_F(ReportTransferTrace, CallerWithoutThePrivilege) {
  Append("r1", 10, {"a"});
  const std::vector<const char*> privileges = {"Other"};
  const std::string refusal =
      "<Error Msg=\"Required security privilege &quot;AccessPerformanceMgr&quot; missing - access not granted!\" "
      "LastError=\"1313\"/>\n";
  Expect(
      kNewThreadData + kBlockIsValid + Input("<ReportData Name=\"r1\" StartIndex=\"0\"/>") +
          Lines{
              {3, "WCSP_QX GetReports  : WS-TRUST security validation data found - using authorization"},
              {1,
               "WCSP_SCCI Detach    : ## ERROR! Required security privilege \"AccessPerformanceMgr\" missing - "
               "access not granted! (0x521)"},
          } +
          RequestOf("r1", "72 31   r1", 0) + Path("r1") + OpenedReport("r1", "9 Bytes") + RingIndices(0, 1) +
          ReadEntry(0, 0) + CompareOldest(0) + TakenEntry("a") + EndOfRing() + RecordsRead(1, 3) +
          RepliedRecords("r1", 0, 1, "a\r\n", refusal),
      [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 0).result, 0); }, {}, &privileges);
}

TEST_F(ReportTransferTrace, CallerWithThePrivilege) {
  const std::vector<const char*> privileges = {"AccessPerformanceMgr"};
  const Lines granted = {
      {3, "WCSP_QX GetReports  : WS-TRUST security validation data found - using authorization"},
      {3, "WCSP_QX GetReports  : Required access privileges available - access granted"},
  };
  ServiceThread thread(privileges);
  const TraceCapture trace(3);
  EXPECT_EQ(thread.Ask("none", 0).result, 12);
  EXPECT_EQ(Seen(trace, thread.Data()),
            Upto(3, Lines{kNewThreadData.front()} + granted + RequestOf("none", "6E 6F 6E 65   none", 0) +
                        NotReadableLine("none")));
}

TEST_F(ReportTransferTrace, FullChunkAndSizeInKilobytes) {
  const std::string half(0x80000, 'h');
  Append("r1", 10, {half, half});  // 2 * (524288 + 2) + 6 bytes
  Expect(kNewThreadData + kBlockIsValid + Input("<ReportData Name=\"r1\" StartIndex=\"0\"/>") + kNoAuthorization +
             RequestOf("r1", "72 31   r1", 0) + Path("r1") + OpenedReport("r1", "1024 kB") + RingIndices(0, 2) +
             ReadEntry(0, 0) + CompareOldest(0) + TakenEntry(half) + ReadEntry(1, 1) + ChunkIsFull() +
             RecordsRead(1, 524290) + RepliedRecords("r1", 0, 1, half + "\r\n"),
         [](ServiceThread& thread) { EXPECT_EQ(thread.Ask("r1", 0).result, 0); });
}

TEST_F(ReportTransferTrace, SizeIsShownInBytesUpTo10239) {
  Append("r1", 10, {std::string(10239 - 8, 'x')});
  Append("r2", 10, {std::string(10240 - 8, 'x')});
  const TraceCapture trace(2);
  EXPECT_EQ(ServiceThread().Ask("r1", 0).result, 0);
  EXPECT_EQ(ServiceThread().Ask("r2", 0).result, 0);
  EXPECT_EQ(Seen(trace, nullptr),
            "WCSP_QX GetReports  : Transfer report data file\n"
            "WCSP_QX GetReports  : Get report file \"r1\", total size: 10239 Bytes, chunk size: 1024 kB\n"
            "WCSP_QX GetReports  : Transfer report data file\n"
            "WCSP_QX GetReports  : Get report file \"r2\", total size: 10 kB, chunk size: 1024 kB\n");
}

// The same, but a writer appends "3" to the report r1 after the first read of the transfer. At one level.
class ReportTransferTraceInRace : public ReportTransferTrace {
 protected:
  std::string SeenAt(int level) {
    CMarkup in;
    EXPECT_TRUE(in.SetDoc("<ReportData Name=\"r1\"/>"));
    EXPECT_TRUE(in.FindElem("ReportData"));
    CMarkup out;
    CFileTransferProvider provider;
    CThreadData data;
    const std::string base = BasePath("r1");
    TransferOptions options;
    options.first_record_read = AppendThree;
    options.context = const_cast<char*>(base.c_str());
    const TraceCapture trace(level);
    EXPECT_EQ(qx::provider::ReportTransfer(provider, data, out, options).Run(in), 0);
    return Seen(trace, &data);
  }

 private:
  static void AppendThree(void* path) {
    CReportFileBase store;  // at level 5 the open traces the header, which does not belong to the transfer
    (void)Debug.ForceMaxDebug(false);
    EXPECT_TRUE(store.Open(static_cast<const char*>(path), 2) && store.writeLine("3"));
    (void)Debug.ForceMaxDebug(true);
  }
};

TEST_F(ReportTransferTraceInRace, ChangedRing) {
  const Lines expected =
      RequestOf("r1", "72 31   r1", 0) + Path("r1") + OpenedReport("r1", "12 Bytes") + RingIndices(0, 2) +
      ReadEntry(0, 0) + CompareOldest(1) +
      Lines{{2,
             "WCSP_QX GetReports  : ## WARNING! OldestIndex has changed since first line was read - ignore "
             "first line"}} +
      ReadEntry(0, 1) + TakenEntry("2") + ReadEntry(1, 0) + TakenEntry("3") + EndOfRing() + RecordsRead(2, 6) +
      RepliedRecords("r1", 0, 2, "2\r\n3\r\n");
  for (int level = 1; level <= kLevelMax; ++level) {
    Append("r1", 2, {"1", "2"});
    EXPECT_EQ(SeenAt(level), Upto(level, expected)) << "level " << level;
    std::filesystem::remove(BasePath("r1") + ".ind");
  }
}

TEST_F(ReportTransferTrace, TracedAndUntracedCallsReturnTheSameReply) {
  Append("r1", 3, {"1", "2\nhidden", "]]>", "4"});
  const qx::test::Reply untraced = ServiceThread().Ask("r1", 0);
  const TraceCapture trace(6);
  EXPECT_EQ(ServiceThread().Ask("r1", 0), untraced);
}

}  // namespace
