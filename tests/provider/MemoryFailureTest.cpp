// Tests the report functions when there is no memory.
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <new>
#include <string>

#include "tests/provider/TransferFixture.h"
#include "tests/support/FailingAllocator.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::FailingAllocation;
using qx::test::OpenDescriptors;
using qx::test::Reply;
using qx::test::ServiceThread;
using qx::test::TraceCapture;

class MemoryFailure : public qx::test::TransferFixture {};

TEST_F(MemoryFailure, WithoutMemoryThreadDataIsNullWithAFatalTrace) {
  const std::unique_ptr<BlockBuilder> block = BlockBuilder::Request("GetReports");
  KrxRequestParams params(block->Block());
  CFileTransferProvider provider;
  const TraceCapture trace(1);
  const FailingAllocation failure({.bytes_min = sizeof(CThreadData)});
  EXPECT_EQ(provider.GetOrAllocateThreadData(params), nullptr);
  EXPECT_EQ(trace.Text(),
            "WCSP_QX GetThrdData : ## FATAL ERROR! Could not allocate CThreadData! Function will be aborted.\n");
}

TEST_F(MemoryFailure, WithoutThreadDataACheckIsFatalAndItsErrorIsEmpty) {
  const std::unique_ptr<BlockBuilder> block = BlockBuilder::Request("GetReports");
  KrxRequestParams params(block->Block());
  CMarkup in;
  CMarkup out;
  CThreadData kept;
  CThreadData* data = &kept;
  CFileTransferProvider provider;
  const FailingAllocation failure({.bytes_min = sizeof(CThreadData)});
  EXPECT_EQ(provider.CheckRequest(params, in, out, data, "ReportData", "AccessPerformanceMgr"), -1);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(out.GetDoc(), "<Error Msg=\"\"/>\n");
}

TEST_F(MemoryFailure, WithoutThreadDataACallIsFatalAndNothingIsCounted) {
  const std::unique_ptr<BlockBuilder> block = BlockBuilder::Request("GetReports");
  KrxRequestParams params(block->Block());
  CMarkup in;
  CMarkup out;
  CFileTransferProvider provider;
  const FailingAllocation failure({.bytes_min = sizeof(CThreadData)});
  EXPECT_EQ(provider.GetReports(params, in, out), -1);
  EXPECT_EQ(out.GetDoc(), "<Error Msg=\"\"/>\n");
}

// The hex dump of a name of 1 MB takes several MB. It must be made only for a trace that shows it.
TEST_F(MemoryFailure, NameDumpIsOnlyMadeForTheLevelThatShowsIt) {
  constexpr std::size_t kDumpBytes = 4000000;
  const std::string name(1000000, 'n');
  for (const int level : {1, 3, 4}) {
    ServiceThread thread;
    const TraceCapture trace(level);
    const FailingAllocation failure({.bytes_min = kDumpBytes});
    try {
      (void)thread.Ask(name, 0);
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(failure.HasFailed(), level >= 4) << "level " << level;
  }
}

// Each allocation of a call fails once: the call throws or continues, the failure is counted, and no record or
// descriptor is lost.
TEST_F(MemoryFailure, FailedAllocationLeavesTheTransferIntact) {
  Append("r1", 10, {"a", "b", std::string(300, 'c')});
  const std::string input = "<ReportData Name=\"r1\" StartIndex=\"0\"/>";
  ServiceThread thread;
  const Reply whole = thread.GetReports(input);
  const std::size_t open = OpenDescriptors();
  int nth = 0;
  for (bool failed = true; failed; ++nth) {
    CMarkup in;
    (void)in.SetDoc(input.c_str());
    CMarkup out;
    KrxRequestParams params(thread.Block());
    CFileTransferProvider provider;
    thread.Data()->state_word = 41;
    {
      const FailingAllocation failure({.nth = nth + 1});
      try {
        (void)provider.GetReports(params, in, out);
      } catch (const std::bad_alloc&) {
      }
      failed = failure.HasFailed();
    }
    const bool was_reset = thread.Data()->state_word == 1;
    EXPECT_TRUE(was_reset || thread.Data()->state_word == 42) << nth;
    EXPECT_EQ(thread.GetReports(input), whole) << nth;
    EXPECT_EQ(OpenDescriptors(), open) << nth;
  }
  EXPECT_GT(nth, 5);
}

// The same for the list of instance names; these calls are not counted.
TEST_F(MemoryFailure, FailedAllocationInAListOfNamesLeaksNothing) {
  qx::test::WriteFile(directory_.File("r1.names"), "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=a\n2=b\n");
  ServiceThread thread;
  (void)thread.Ask("none", 1);
  const std::size_t open = OpenDescriptors();
  int nth = 0;
  for (bool failed = true; failed; ++nth) {
    CMarkup in;
    (void)in.SetDoc("<ReportInstanceNames Name=\"r1\"/>");
    CMarkup out;
    KrxRequestParams params(thread.Block());
    CFileTransferProvider provider;
    int result = -1;
    {
      const FailingAllocation failure({.nth = nth + 1});
      try {
        result = provider.GetReportInstanceNames(params, in, out);
      } catch (const std::bad_alloc&) {
      }
      failed = failure.HasFailed();
    }
    EXPECT_EQ(OpenDescriptors(), open) << nth;
    EXPECT_TRUE(failed || result == 0);
    EXPECT_TRUE(result != 0 || out.IsWellFormed()) << nth << " " << out.GetDoc();
  }
  EXPECT_GT(nth, 5);
}

}  // namespace
