// Tests the traces of the frame around the operations and in them: each line is written at its own level and above.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "provider/ModuleExports.h"
#include "tests/provider/TraceLines.h"
#include "tests/provider/TransferFixture.h"
#include "tests/provider/TransferLines.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::TraceCapture;
using qx::test::Upto;
using Lines = qx::test::TraceLines;
using namespace qx::test::transfer;

// Hides what differs from run to run: replaces the characters of `set` after `prefix` by `mark`.
struct Varying {
  std::string prefix;
  const char* set;
  const char* mark;
};
constexpr const char* kHexadecimal = "0123456789abcdefABCDEF";
constexpr const char* kDecimal = "-0123456789";
const Varying kVarying[] = {
    {"0x0x", kHexadecimal, "ADDRESS"},          {"cleanup user pointer data at 0x", kHexadecimal, "ADDRESS"},
    {"pString = 0x", kHexadecimal, "LOW32"},    {"pAdapterModule = 0x", kHexadecimal, "LOW32"},
    {"free address 0x", kHexadecimal, "LOW32"}, {"Delete memory at 0x", kHexadecimal, "LOW32"},
    {" thread with id=", kDecimal, "ID"},       {"threadId=", kDecimal, "ID"},
    {"current thread ID = ", kDecimal, "ID"},   {"found for user \"", kDecimal, "NUMBER"},
};

std::string Marked(std::string text) {
  for (const Varying& varying : kVarying) {
    for (std::size_t at = 0; (at = text.find(varying.prefix, at)) != std::string::npos;) {
      at += varying.prefix.size();
      const std::size_t end = std::min(text.find_first_not_of(varying.set, at), text.size());
      if (end != at) text.replace(at, end - at, varying.mark);
    }
  }
  return text;
}

// The captured lines, except those of the registry. Varying parts are replaced by marks.
std::string Seen(const TraceCapture& trace) {
  std::string text;
  for (const std::string& entry : trace.Entries()) {
    if (!entry.starts_with("CRegistry")) text += entry + "\n";
  }
  return Marked(std::move(text));
}

class FrameTrace : public qx::test::TransferFixture {
 protected:
  ~FrameTrace() override { pAdapterModule = nullptr; }

  // Runs `call` at every level, each time with a new module object and a new block. The module object is made before.
  static void Expect(const Lines& lines, const std::function<void(BlockBuilder&)>& call,
                     const std::function<void(BlockBuilder&)>& prepare = {}) {
    for (int level = 0; level <= 6; ++level) {
      CFileTransferProvider module;
      ASSERT_TRUE(module.Init(nullptr));
      pAdapterModule = &module;
      const auto block = BlockBuilder::Request("Function");
      if (prepare) prepare(*block);
      std::string seen;
      {
        const TraceCapture trace(level);
        call(*block);
        seen = Seen(trace);
      }
      EXPECT_EQ(seen, Upto(level, lines)) << "level " << level;
      delete static_cast<CThreadData*>(block->Entry(0)->value);
      pAdapterModule = nullptr;
    }
  }

  // One request as the service makes it. Its reply is freed.
  static std::function<void(BlockBuilder&)> Call(QxRequestFunction function, const std::string& input, int result) {
    return [=](BlockBuilder& block) {
      char* reply = nullptr;
      EXPECT_EQ(function(block.Block(), input.c_str(), &reply), result);
      if (reply != nullptr) __free(reply);
    };
  }
};

const Lines kReplyAndFree = {
    {6, "WCSP_MAIN           : ReplyString - duplicated pString = 0xLOW32"},
    {6, "WCSP_MAIN Free      : Delete memory at 0xLOW32"},
    {6, "WCSP_MAIN           : FreeReplyString - free address 0xLOW32"},
};

TEST_F(FrameTrace, LifeOfTheModuleObject) {
  Expect(
      {
          {1, ""},
          {3, "----------------------------------------------------------------------------------------------------"},
          {1, "*** KRX Provider library loaded ***"},
          {4, ""},
          {3, "KRX Provider        : DLL name:        QXRemConXfer"},
          {3, "KRX Provider        : File Version:    1.2.3"},
          {3, "KRX Provider        : Company:         Norrlek"},
          {3, "KRX Provider        : Milestone:       -"},
          {3, "KRX Provider        : Build:           2026/01/31-10:20"},
          {6, "WCSP_MAIN Create    : CreateModule - allocate pAdapterModule = 0xLOW32"},
          {6, "WCSP_MAIN Delete    : DeleteModule - delete pAdapterModule = 0xLOW32"},
          {1, "*** KRX Provider library unload ***"},
      },
      [](BlockBuilder&) {
        EXPECT_EQ(CreateModule(nullptr), 1);
        DeleteModule();
      });
}

TEST_F(FrameTrace, What) {
  Expect(Lines{{2, "WCSP_MAIN What      : KRX function call: Function"},
               {2, "WCSP_MAIN What      :   from: QxTest@192.0.2.1"},
               {2,
                "WCSP_MAIN What      : -> output data: <QXRemConXfer version=\"1.2.3\" date=\"2026/01/31-10:20\" "
                "company=\"Norrlek\" milestone=\"-\"/>"}} +
             kReplyAndFree,
         Call(What, "", 0));
}

TEST_F(FrameTrace, Reflect) {
  Expect(Lines{{2, "WCSP_MAIN Reflect   : KRX function call: Function"},
               {2, "WCSP_MAIN Reflect   :   from: QxTest@192.0.2.1"},
               {2, "WCSP_MAIN Reflect   : -> input data:  <a/>"},
               {2, "WCSP_MAIN Reflect   : -> output data: <a/>"}} +
             kReplyAndFree,
         Call(Reflect, "<a/>", 0));
}

TEST_F(FrameTrace, ReflectOfInputThatIsNotWellFormed) {
  Expect({{2, "WCSP_MAIN Reflect   : KRX function call: Function"},
          {2, "WCSP_MAIN Reflect   :   from: QxTest@192.0.2.1"},
          {3, "WCSP_MAIN Reflect   : -> no valid XML input data - ignored"}},
         Call(Reflect, "<a>", 0));
}

TEST_F(FrameTrace, HooksAndReplyMemory) {
  Expect(
      {
          {4, "WCSP ThreadBegin    : start of thread with id=ID"},
          {4, "WCSP ThreadEnd      : end of thread with id=ID"},
          {3, "WCSP_QX ThreadEnd   : __treadend() - free thread specific data"},
          {5, "WCSP_QX ThreadEnd   :    cleanup user pointer data at (nil)"},
          {4, "WCSP_QX ThreadEnd   : thread-specific data not available; no cleanup required"},
          {3, "WCSP_QX ThreadEnd   : __treadend() - free thread specific data"},
          {5, "WCSP_QX ThreadEnd   :    cleanup user pointer data at 0xADDRESS"},
          {4, "WCSP_QX ThreadEnd   :   deleting CThreadData instance..."},
          {4, "WCSP_QX ThreadEnd   : thread-specific data deleted"},
          {4, "WCSP HandleVersion  : current adapter library version = V3.04.00 (0x76C0)"},
          {1, "WCSP StopRequest    : ## Service shutdown initiated"},
          {6, "WCSP_MAIN           : AllocReplyString - allocate pString = 0xLOW32"},
          {6, "WCSP_MAIN           : FreeReplyString - free address 0xLOW32"},
      },
      [](BlockBuilder&) {
        __threadbegin();
        CKrxAdapterModule().__threadend(nullptr);
        __threadend(nullptr);
        __threadend(new CThreadData);
        EXPECT_EQ(__handle_version(), 30400);
        __stoprequest();
        CKrxAdapterModule::FreeReplyString(CKrxAdapterModule::AllocReplyString(1));
      });
}

TEST_F(FrameTrace, CheckOfABlockWithoutProviderData) {
  Expect(
      {
          {4, "WCSP CheckParams    : Check KRX request parameters..."},
          {4, "WCSP CheckParams    : Expected krx_gendata header structure:"},
          {4, "                    :   tag:              KRX"},
          {4, "                    :   current version:  3.4.0"},
          {4, "                    :   expected version: 1.7.1"},
          {4, "WCSP CheckParams    : Got a valid krx_gendata structure:"},
          {4, "                    :   tag:           KRX"},
          {4, "                    :   version:       3.4.0"},
          {4, "                    :   size:          4096 bytes"},
          {4, "                    :   element count: 5"},
          {5, "WCSP CheckParams    :   KRX thread ID = 77, current thread ID = ID"},
          {4, "WCSP CheckParams    : All checks OK"},
      },
      [](BlockBuilder& block) {
        KrxRequestParams params(block.Block());
        std::string text;
        unsigned code = 0;
        EXPECT_TRUE(CKrxAdapterModule().CheckRequestParams(params, text, code));
      });
}

const Lines kSecurityDataFound = {
    {4, "KrxReqestParams     : Find security validation data"},
    {5, "KrxReqestParams     :   security interceptor structure found"},
    {4, "KrxReqestParams     :   -> security validation data found, get authorization data..."},
};

void FindSecurityData(BlockBuilder& block) { (void)KrxRequestParams(block.Block()).FindSecurityValidationData(); }

TEST_F(FrameTrace, SecurityDataWithPrivileges) {
  Expect(kSecurityDataFound +
             Lines{
                 {4, "KrxReqestParams     :     auth user ID=\"admin\", number of departments=2"},
                 {5, "KrxReqestParams     :     department[0]: \"Operations\", number of privileges=1"},
                 {5, "KrxReqestParams     :       privilege: \"Read\""},
                 {5, "KrxReqestParams     :     department[1]: \"Storage\", number of privileges=0"},
             },
         FindSecurityData, [](BlockBuilder& block) {
           block.Security("admin", {{"Operations", {"Read"}}, {"Storage", {}}});
         });
}

TEST_F(FrameTrace, SecurityDataWithoutPrivileges) {
  Expect(kSecurityDataFound +
             Lines{{4, "KrxReqestParams     :     auth user ID=\"admin\", number of departments=0"},
                   {1,
                    "KrxReqestParams     : ## ERROR! No privileges found for user \"NUMBER\" (something wrong "
                    "here)!"}},
         FindSecurityData, [](BlockBuilder& block) { block.Security("admin", {}); });
}

TEST_F(FrameTrace, SecurityDataWithoutAuthorisation) {
  const krx_validation_data validation{};
  Expect(kSecurityDataFound + Lines{{1,
                                     "KrxReqestParams     : ## ERROR! No authorization data found in security "
                                     "validation data structure!"}},
         FindSecurityData, [&](BlockBuilder& block) { block.ValidationData(&validation); });
}

TEST_F(FrameTrace, NoSecurityData) {
  Expect({kSecurityDataFound[0],
          kSecurityDataFound[1],
          {4, "KrxReqestParams     :   -> security validation data NOT found!"}},
         FindSecurityData, [](BlockBuilder& block) { block.Nested(61); });
  Expect({kSecurityDataFound[0]}, FindSecurityData);
}

const Lines kBlockIsGood = {
    {5, "WCSP_QX GetThrdData :   pThreadData = 0x(nil)"},
    {5, "WCSP_QX GetThrdData : no thread data allocated yet => alloc CThreadData structure"},
    {5, "WCSP_QX GetThrdData : CThreadData created, pThreadData = 0x0xADDRESS, threadId=ID"},
    {4, "WCSP CheckParams    : Check KRX request parameters..."},
    {5, "WCSP CheckParams    :   KRX thread ID = 77, current thread ID = ID"},
    {4, "WCSP CheckParams    : All checks OK"},
};

// The check of the request writes the name of the other function into its column.
TEST_F(FrameTrace, InstanceNames) {
  const std::string input = "<ReportInstanceNames Name=\"r1\"/>";
  const std::string reply =
      "<ReportInstanceNames Name=\"r1\" Version=\"1\" NrInstances=\"1\">\n<Instance Nr=\"1\">ab</Instance>\n"
      "</ReportInstanceNames>\n";
  qx::test::WriteFile(BasePath("r1.names"), "[Quaxel Report Instances]\nVersion=1\nName=n\n[Names]\n1=ab\n");
  Expect(Lines{{2, "WCSP_QX GetInstances: Get report instance names"}} + kBlockIsGood +
             Lines{{4, "WCSP_QX GetReports  :   XML input string: \"" + input + "\""}} + kSecurityDataFound +
             Lines{
                 {4, "KrxReqestParams     :     auth user ID=\"admin\", number of departments=1"},
                 {5, "KrxReqestParams     :     department[0]: \"Operations\", number of privileges=1"},
                 {5, "KrxReqestParams     :       privilege: \"AccessPerformanceMgr\""},
                 {3, "WCSP_QX GetReports  : WS-TRUST security validation data found - using authorization"},
                 {3, "WCSP_QX GetReports  : Required access privileges available - access granted"},
                 {4, "WCSP_QX GetInstances:   XML input string: \"" + input + "\""},
                 {5, "72 31   r1"},
                 {3, "WCSP_QX GetInstances: open instance file " + BasePath("r1") + ".names..."},
                 {3, "WCSP_QX GetInstances:   instance file existing"},
                 {3, "WCSP_QX GetInstances:   version=1, report name=n"},
                 {3, "WCSP_QX GetInstances:   entry: 1=ab"},
                 {3, "WCSP_QX GetInstances:   instance name: ab"},
                 {5, "61 62   ab"},
                 {4, "WCSP_QX GetInstances: XML output: \"" + reply + "\""},
                 {2, "WCSP_QX GetInstances:   file transferred, Version=1, Length=" + std::to_string(reply.size()) +
                         " bytes"},
             } +
             kReplyAndFree,
         Call(GetReportInstanceNames, input, 0), [](BlockBuilder& block) {
           block.Security("admin", {{"Operations", {"AccessPerformanceMgr"}}});
         });
}

const Lines kNoSecurityData = {
    {4, "KrxReqestParams     : Find security validation data"},
    {3, "WCSP_QX GetReports  :   WS-TRUST security validation data not found - no authorization required"},
};

// Input that is not well formed is not traced, and needs no privilege.
TEST_F(FrameTrace, ReportsForInputThatIsNotWellFormed) {
  Expect(Lines{{2, "WCSP_QX GetReports  : Transfer report data file"}} + kBlockIsGood + RequestOf("", "", 0) +
             PathOfReport(BasePath("")) + NotReadableLine("") + kReplyAndFree,
         Call(GetReports, "<ReportData Name=\"r1\">", 12));
}

// If a record exceeds both limits, the chunk limit ends the reply: it is checked first.
TEST_F(FrameTrace, ChunkLimitComesBeforeTheRecordLimit) {
  const std::string half(0x80000, 'h');
  Append("r1", 10, {half, half});
  const std::string input = "<ReportData Name=\"r1\" StartIndex=\"0\" NrRecords=\"1\"/>";
  Expect(Lines{{2, "WCSP_QX GetReports  : Transfer report data file"}} + kBlockIsGood +
             Lines{{4, "WCSP_QX GetReports  :   XML input string: \"" + input + "\""}} + kNoSecurityData +
             RequestOf("r1", "72 31   r1", 0) + RecordLimit(1) + PathOfReport(BasePath("r1")) +
             OpenedReport("r1", "1024 kB") + RingIndices(0, 2) + ReadEntry(0, 0) + CompareOldest(0) + TakenEntry(half) +
             ReadEntry(1, 1) + ChunkIsFull() + RecordsRead(1, 524290) + RepliedRecords("r1", 0, 1, half + "\r\n") +
             kReplyAndFree,
         Call(GetReports, input, 0));
}

}  // namespace
