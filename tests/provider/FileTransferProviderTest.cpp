#include "provider/FileTransferProvider.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "provider/BufferPool.h"
#include "provider/Low32.h"
#include "provider/ModuleExports.h"
#include "tests/provider/TransferFixture.h"

namespace {

using qx::provider::CurrentThreadLow32;
using qx::test::BlockBuilder;
using qx::test::NoMoreRecords;
using qx::test::NotReadable;
using qx::test::OpenDescriptors;
using qx::test::Records;
using qx::test::Reply;
using qx::test::ServiceThread;
using qx::test::TraceCapture;

static_assert(std::is_base_of_v<CKrxAdapterModule, CFileTransferProvider>);
static_assert(sizeof(CFileTransferProvider) == sizeof(CKrxAdapterModule));

constexpr char kPrivilege[] = "AccessPerformanceMgr";

std::string Address(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%p", p);
  return text;
}

std::string ThisThread() { return std::to_string(static_cast<int>(CurrentThreadLow32())); }

// The check of a request alone, with everything that it may change.
struct Check {
  explicit Check(BlockBuilder& block) : params(block.Block()) {}
  ~Check() {
    if (params.GetProviderSpecificData() != data) delete data;
  }
  Check(const Check&) = delete;
  Check& operator=(const Check&) = delete;

  int Run(const char* input, const char* tag, const char* privilege) {
    (void)in.SetDoc(input);
    return provider.CheckRequest(params, in, out, data, tag, privilege);
  }

  CFileTransferProvider provider;
  KrxRequestParams params;
  CMarkup in;
  CMarkup out;
  CThreadData* data = nullptr;
};

// A request block whose thread data is freed at the end.
class RequestBlock {
 public:
  RequestBlock() : block_(BlockBuilder::Request("GetReports")) {}
  ~RequestBlock() { delete Data(); }
  RequestBlock(const RequestBlock&) = delete;
  RequestBlock& operator=(const RequestBlock&) = delete;

  BlockBuilder& operator*() { return *block_; }
  BlockBuilder* operator->() { return block_.get(); }
  CThreadData* Data() { return static_cast<CThreadData*>(block_->Entry(0)->value); }

 private:
  std::unique_ptr<BlockBuilder> block_;
};

TEST(FileTransferProviderThreadData, FirstRequestOfAThreadStoresNewDataInTheBlock) {
  RequestBlock block;
  CFileTransferProvider provider;
  KrxRequestParams params(block->Block());
  const TraceCapture trace(5);
  CThreadData* const data = provider.GetOrAllocateThreadData(params);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(block.Data(), data);
  EXPECT_EQ(data->thread_id, CurrentThreadLow32());
  EXPECT_EQ(trace.Text(),
            "WCSP_QX GetThrdData :   pThreadData = 0x(nil)\n"
            "WCSP_QX GetThrdData : no thread data allocated yet => alloc CThreadData structure\n"
            "WCSP_QX GetThrdData : CThreadData created, pThreadData = " +
                Address(data) + ", threadId=" + ThisThread() + "\n");
}

TEST(FileTransferProviderThreadData, LaterRequestsOfTheThreadUseTheSameData) {
  RequestBlock block;
  CFileTransferProvider provider;
  KrxRequestParams params(block->Block());
  CThreadData* const data = provider.GetOrAllocateThreadData(params);
  const TraceCapture trace(5);
  EXPECT_EQ(provider.GetOrAllocateThreadData(params), data);
  EXPECT_EQ(trace.Text(), "WCSP_QX GetThrdData :   pThreadData = " + Address(data) +
                              "\n"
                              "WCSP_QX GetThrdData : CThreadData exists for this thread (" +
                              Address(data) + ") - use its data, saved threadId=" + ThisThread() + "\n");
}

TEST(FileTransferProviderThreadData, DataOfAnotherThreadIsReportedAndStillUsed) {
  RequestBlock block;
  CFileTransferProvider provider;
  KrxRequestParams params(block->Block());
  CThreadData* const data = provider.GetOrAllocateThreadData(params);
  data->thread_id += 1;
  const TraceCapture trace(1);
  EXPECT_EQ(provider.GetOrAllocateThreadData(params), data);
  EXPECT_EQ(trace.Text(),
            "WCSP_QX GetThrdData : ## FATAL ERROR! Saved thread ID in CThreadData does not match to the current thread "
            "ID!\n");
}

TEST(FileTransferProviderThreads, EveryThreadHasItsOwnData) {
  RequestBlock here;
  RequestBlock there;
  CFileTransferProvider provider;
  KrxRequestParams params_here(here->Block());
  KrxRequestParams params_there(there->Block());
  CThreadData* const data = provider.GetOrAllocateThreadData(params_here);
  std::thread([&] {
    CThreadData* const other = provider.GetOrAllocateThreadData(params_there);
    EXPECT_NE(other, data);
    EXPECT_NE(other->thread_id, data->thread_id);
  }).join();
}

TEST(FileTransferProviderThreadData, BlockWithoutElementOneGetsNewDataOnEveryCall) {
  BlockBuilder block;
  block.Number(2, 77);
  CFileTransferProvider provider;
  KrxRequestParams params(block.Block());
  const std::unique_ptr<CThreadData> first(provider.GetOrAllocateThreadData(params));
  const std::unique_ptr<CThreadData> second(provider.GetOrAllocateThreadData(params));
  EXPECT_NE(first, second);
  EXPECT_EQ(params.GetProviderSpecificData(), nullptr);
}

TEST(FileTransferProviderThreadData, ThreadEndFreesTheDataAndClosesItsReport) {
  const qx::test::TempDir directory;
  const std::string base = directory.File("r1");
  qx::test::AppendRecords(base, 10, {"x"});
  auto* const data = new CThreadData;
  const std::size_t before = OpenDescriptors();
  ASSERT_TRUE(data->report_file.OpenRead(base.c_str()));
  EXPECT_EQ(OpenDescriptors(), before + 2);

  CFileTransferProvider provider;
  CKrxAdapterModule& module = provider;
  {
    const TraceCapture trace(5);
    module.__threadend(data);
    EXPECT_EQ(trace.Text(),
              "WCSP_QX ThreadEnd   : __treadend() - free thread specific data\n"
              "WCSP_QX ThreadEnd   :    cleanup user pointer data at " +
                  Address(data).substr(2) +
                  "\n"
                  "WCSP_QX ThreadEnd   :   deleting CThreadData instance...\n"
                  "WCSP_QX ThreadEnd   : thread-specific data deleted\n");
  }
  EXPECT_LE(OpenDescriptors(), before + 1);  // the trace log may also be open
}

TEST(FileTransferProviderThreadData, ThreadEndWithoutDataOnlyTraces) {
  CFileTransferProvider provider;
  const TraceCapture trace(5);
  provider.__threadend(nullptr);
  EXPECT_EQ(trace.Text(),
            "WCSP_QX ThreadEnd   : __treadend() - free thread specific data\n"
            "WCSP_QX ThreadEnd   :    cleanup user pointer data at (nil)\n"
            "WCSP_QX ThreadEnd   : thread-specific data not available; no cleanup required\n");
}

TEST(FileTransferProviderCheck, RequestWithItsElementPasses) {
  RequestBlock block;
  Check check(*block);
  EXPECT_EQ(check.Run("<ReportData Name=\"r1\"/>", "ReportData", kPrivilege), 0);
  EXPECT_EQ(check.out.GetDoc(), "");
  EXPECT_EQ(check.data, block.Data());
  EXPECT_EQ(check.in.GetTagName(), "ReportData");
  EXPECT_EQ(check.in.GetAttrib("Name"), "r1");
}

TEST(FileTransferProviderCheck, CheckWithoutRequirementsPasses) {
  RequestBlock block;
  block->Security("operator", {});
  Check check(*block);
  EXPECT_EQ(check.Run("<Other/>", nullptr, nullptr), 0);
  EXPECT_EQ(check.in.GetTagName(), "");  // no privilege was searched
  EXPECT_EQ(check.Run("<Other/>", "Other", nullptr), 0);
  EXPECT_EQ(check.out.GetDoc(), "");
}

TEST(FileTransferProviderCheck, InvalidBlockIsFatal) {
  BlockBuilder no_elements;
  Check check(no_elements);
  EXPECT_EQ(check.Run("<ReportData/>", "ReportData", kPrivilege), -1);
  EXPECT_EQ(check.out.GetDoc(), "<Error Msg=\"krx_gendata structure does not have elements\" LastError=\"13\"/>\n");
  EXPECT_NE(check.data, nullptr);
}

TEST(FileTransferProviderCheck, QuirkInputThatIsNotWellFormedPassesAsAnEmptyDocument) {
  for (const char* const input : {"", "text", "<ReportData Name=\"r1\">", "<ReportData Name=\"r1\"/><b/>"}) {
    RequestBlock block;
    block->Security("operator", {});
    Check check(*block);
    EXPECT_EQ(check.Run(input, "ReportData", kPrivilege), 0) << input;
    EXPECT_EQ(check.out.GetDoc(), "");
    EXPECT_EQ(check.in.GetAttrib("Name"), "");
  }
}

TEST(FileTransferProviderCheck, MalformedInputIsNotReadWhateverItsPosition) {
  RequestBlock block;
  Check check(*block);
  ASSERT_FALSE(check.in.SetDoc("<ReportData Name=\"r1\">"));
  ASSERT_TRUE(check.in.FindElem("ReportData"));
  ASSERT_EQ(check.in.GetAttrib("Name"), "r1");
  EXPECT_EQ(check.provider.CheckRequest(check.params, check.in, check.out, check.data, "ReportData", kPrivilege), 0);
  EXPECT_EQ(check.in.GetAttrib("Name"), "");
}

TEST(FileTransferProviderCheck, MissingElementIsRefusedWith12) {
  RequestBlock block;
  Check check(*block);
  EXPECT_EQ(check.Run("<Other/>", "ReportData", kPrivilege), 12);
  EXPECT_EQ(check.out.GetDoc(),
            "<Error Msg=\"No valid request data in input XML string (&lt;ReportData&gt; tag missing)\" "
            "LastError=\"13\"/>\n");
}

TEST(FileTransferProviderCheck, MissingPrivilegeIsRefusedWith401) {
  RequestBlock block;
  block->Security("operator", {{"Operations", {"accessperformancemgr", "Other"}}});
  Check check(*block);
  EXPECT_EQ(check.Run("<ReportData/>", "ReportData", kPrivilege), 401);
  EXPECT_EQ(check.out.GetDoc(),
            "<Error Msg=\"Required security privilege &quot;AccessPerformanceMgr&quot; missing - access not granted!\" "
            "LastError=\"1313\"/>\n");
}

TEST(FileTransferProviderCheck, SecurityDataThatGrantsNothingIsRefused) {
  RequestBlock block;
  block->ValidationData("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0");
  Check check(*block);
  EXPECT_EQ(check.Run("<ReportData/>", "ReportData", kPrivilege), 401);
}

TEST(FileTransferProviderCheck, PrivilegeMayComeFromAnyDepartment) {
  RequestBlock block;
  block->Security("operator", {{"First", {"Other"}}, {"Second", {kPrivilege}}});
  Check check(*block);
  EXPECT_EQ(check.Run("<ReportData/>", "ReportData", kPrivilege), 0);
  EXPECT_EQ(check.out.GetDoc(), "");
}

TEST(FileTransferProviderCheck, ElementIsCheckedBeforeThePrivilege) {
  RequestBlock block;
  block->Security("operator", {});
  Check check(*block);
  EXPECT_EQ(check.Run("<Other/>", "ReportData", kPrivilege), 12);
}

class FileTransferProviderCall : public qx::test::TransferFixture {};

TEST_F(FileTransferProviderCall, InvalidBlockEndsTheCallAndIsCounted) {
  const std::unique_ptr<BlockBuilder> block = BlockBuilder::Request("GetReports");
  block->Header().tag[0] = 'X';
  KrxRequestParams params(block->Block());
  CMarkup in;
  ASSERT_TRUE(in.SetDoc("<ReportData Name=\"r1\"/>"));
  CMarkup out;
  CFileTransferProvider provider;
  EXPECT_EQ(provider.GetReports(params, in, out), -1);
  EXPECT_EQ(out.GetDoc(),
            "<Error Msg=\"RequestParams structure do not contain a valid krx_gendata structure: XRX\" "
            "LastError=\"13\"/>\n");
  auto* const data = static_cast<CThreadData*>(params.GetProviderSpecificData());
  EXPECT_EQ(data->state_word, 1U);
  EXPECT_EQ(provider.GetReports(params, in, out), -1);
  EXPECT_EQ(data->state_word, 2U);
  provider.__threadend(data);
}

TEST_F(FileTransferProviderCall, DataThatTheBlockCannotStoreIsFreedAfterTheCall) {
  Append("r1", 10, {"a", "b"});
  BlockBuilder block;
  block.Number(2, 77);
  KrxRequestParams params(block.Block());
  CFileTransferProvider provider;
  const auto ask = [&](const char* input) {
    CMarkup in;
    (void)in.SetDoc(input);
    CMarkup out;
    const int result = provider.GetReports(params, in, out);
    return Reply{result, out.GetDoc(), out.IsWellFormed()};
  };
  const Reply first = ask("<ReportData Name=\"r1\" NrRecords=\"1\"/>");
  const std::size_t before = OpenDescriptors();
  for (int call = 0; call < 20; ++call) EXPECT_EQ(ask("<ReportData Name=\"r1\" NrRecords=\"1\"/>"), first);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(first, Records("r1", 0, 1, "a\r\n"));
  EXPECT_EQ(ask("<ReportData Name=\"r1\" StartIndex=\"1\"/>"), Records("r1", 1, 2, "b\r\n"));
}

TEST_F(FileTransferProviderCall, InputWithoutTheElementNeverReturnsARecord) {
  EXPECT_EQ(ServiceThread().GetReports("<Other Name=\"r1\"/>"), NotReadable("", 2));
  Append("", 10, {"nameless"});
  const Reply reply = ServiceThread().GetReports("<Other Name=\"r1\"/>");
  EXPECT_EQ(reply.result, 0);
  EXPECT_FALSE(reply.is_well_formed);
}

TEST_F(FileTransferProviderCall, MalformedInputRequestsTheEmptyName) {
  Append("r1", 10, {"a"});
  const std::vector<const char*> no_privileges;
  const std::vector<const char*> inputs = {"", "<ReportData Name=\"r1\">", "<a/><ReportData Name=\"r1\"/>"};
  for (const char* const input : inputs) {
    EXPECT_EQ(ServiceThread().GetReports(input), NotReadable("", 2)) << input;
    EXPECT_EQ(ServiceThread(no_privileges).GetReports(input), NotReadable("", 2)) << input;
  }
  Append("", 10, {"nameless"});
  for (const char* const input : inputs) {
    EXPECT_EQ(ServiceThread(no_privileges).GetReports(input), Records("", 0, 1, "nameless\r\n")) << input;
  }
}

TEST_F(FileTransferProviderCall, CallerWithThePrivilegeReads) {
  Append("r1", 10, {"a"});
  EXPECT_EQ(ServiceThread({kPrivilege}).Ask("r1", 0), Records("r1", 0, 1, "a\r\n"));
}

// The records try to close the section, the element and the refusal before them.
TEST_F(FileTransferProviderCall, RefusedCallerNeverGetsAReplyWithARecord) {
  const std::vector<std::string> hostile = {
      "a",  "]]></ReportData>",     "]]>",       "</Error>",     "<!--",    "-->", "<?x",
      "?>", "\" LastError=\"0\"/>", "<![CDATA[", "\xef\xbb\xbf", "<Error/>"};
  for (std::size_t count = 1; count <= hostile.size(); ++count) {
    Append("r" + std::to_string(count), 100, {hostile.begin(), hostile.begin() + static_cast<std::ptrdiff_t>(count)});
    Append("s" + std::to_string(count), 100, {hostile[count - 1]});
    for (const std::string& name : {"r" + std::to_string(count), "s" + std::to_string(count)}) {
      const Reply reply = ServiceThread({"Other"}).Ask(name, 0);
      EXPECT_EQ(reply.result, 0);
      EXPECT_FALSE(reply.is_well_formed) << reply.document;
      CMarkup again;
      EXPECT_FALSE(again.SetDoc(reply.document.c_str())) << reply.document;
    }
  }
}

TEST_F(FileTransferProviderCall, RefusedCallersDocumentHasTheRefusalBeforeTheReport) {
  Append("r1", 10, {"a"});
  EXPECT_EQ(ServiceThread({"Other"}).Ask("r1", 0),
            (Reply{0,
                   "<Error Msg=\"Required security privilege &quot;AccessPerformanceMgr&quot; missing - access not "
                   "granted!\" LastError=\"1313\"/>\n"
                   "<ReportData Name=\"r1\" StartIndex=\"0\" NextIndex=\"1\"><![CDATA[a\r\n]]></ReportData>\n",
                   false}));
}

TEST_F(FileTransferProviderCall, OtherRepliesToARefusedCallerAreTransferErrors) {
  Append("r1", 10, {"a"});
  ServiceThread thread({"Other"});
  EXPECT_EQ(thread.Ask("none", 0), NotReadable("none", 2));
  EXPECT_EQ(thread.Ask("r1", 0, 0), NoMoreRecords());
}

// When the exported function returns, the large buffer of the chunk, its document, is in the pool again.
TEST_F(FileTransferProviderCall, BigBufferOfACallIsKeptForTheNext) {
  const std::string half(400000, 'h');
  Append("r1", 10, {half, half});
  ASSERT_EQ(CreateModule(nullptr), 1);
  qx::provider::transfer_buffers.Clear();
  const std::unique_ptr<BlockBuilder> block = BlockBuilder::Request("GetReports");
  std::size_t kept_bytes = 0;
  for (int call = 0; call < 3; ++call) {
    char* text = nullptr;
    EXPECT_EQ(GetReports(block->Block(), "<ReportData Name=\"r1\"/>", &text), 0);
    EXPECT_EQ(text, Records("r1", 0, 2, half + "\r\n" + half + "\r\n").document);
    __free(text);
    EXPECT_EQ(qx::provider::transfer_buffers.KeptCount(), 1U);
    if (call == 0) kept_bytes = qx::provider::transfer_buffers.KeptBytes();
    EXPECT_EQ(qx::provider::transfer_buffers.KeptBytes(), kept_bytes);
  }
  __threadend(block->Entry(0)->value);
  DeleteModule();
  qx::provider::transfer_buffers.Clear();
}

}  // namespace
