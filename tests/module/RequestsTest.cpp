// Tests requests through the built module: whole replies and whole logs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/module/Host.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::BlockDepartment;
using qx::test::InChild;
using qx::test::LoadedModule;
using qx::test::ReadFile;
using qx::test::ServiceThread;
using qx::test::WriteFile;
using testing::HasSubstr;
using testing::MatchesRegex;

class ModuleRequests : public qx::test::ModuleTest {};

TEST_F(ModuleRequests, WhatReflectAndVersionReplyThroughTheExports) {
  EXPECT_THAT(InChild([] {
                const LoadedModule module;
                const auto block = BlockBuilder::Request("What");
                return module.Call("What", block->Block(), "<no good") +
                       module.Call("Reflect", block->Block(), "<a>1 &lt; 2</a>") + "|" +
                       module.Call("Reflect", block->Block(), "<a>") + "|" +
                       std::to_string(module.Symbol<QxHandleVersionFunction>("__handle_version")());
              }),
              MatchesRegex("0 <QXRemConXfer version=\"[0-9.]+\" date=\"[0-9/:-]+\" company=\"Norrlek\" "
                           "milestone=\"-\"/>\n0 <a>1 &lt; 2</a>\\|0 \\(null\\)\\|30400"));
}

TEST_F(ModuleRequests, TransferInChunksEndsWithNoMoreRecords) {
  Append("r1", 10, {"a", "b", "c", "d", "e"});
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              ServiceThread thread(module);
              return thread.Ask("r1", 0, 2) + thread.Ask("r1", 2, 2) + thread.Ask("r1", 4, 2) + thread.Ask("r1", 5, 2);
            }),
            "0 <ReportData Name=\"r1\" StartIndex=\"0\" NextIndex=\"2\"><![CDATA[a\r\nb\r\n]]></ReportData>\n"
            "0 <ReportData Name=\"r1\" StartIndex=\"2\" NextIndex=\"4\"><![CDATA[c\r\nd\r\n]]></ReportData>\n"
            "0 <ReportData Name=\"r1\" StartIndex=\"4\" NextIndex=\"5\"><![CDATA[e\r\n]]></ReportData>\n"
            "1 <Error Msg=\"No more records available (no error)\"/>\n");
}

TEST_F(ModuleRequests, MissingReportIsRefusedWithTheErrorNumber) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              ServiceThread thread(module);
              return thread.Ask("none", 0);
            }),
            "12 <Error Msg=\"Report data for report &apos;none&apos; could not be read\" LastError=\"2\"/>\n");
}

TEST_F(ModuleRequests, InvalidBlockEndsTheCall) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              const auto block = BlockBuilder::Request("GetReports");
              std::memcpy(block->Header().tag, "ABCD", 4);
              std::string text = module.Call("GetReports", block->Block(), "<ReportData/>");
              module.ThreadEnd(block->Entry(0)->value);
              return text;
            }),
            "-1 <Error Msg=\"RequestParams structure do not contain a valid krx_gendata structure: ???\" "
            "LastError=\"13\"/>\n");
}

TEST_F(ModuleRequests, CallerWithoutThePrivilegeNeverReceivesARecord) {
  Append("r1", 4, {"secret"});
  const std::string text = InChild([] {
    const LoadedModule module;
    const std::vector<BlockDepartment> wrong = {{"Operations", {"accessperformancemgr"}}};
    const std::vector<BlockDepartment> right = {{"Operations", {"AccessPerformanceMgr"}}};
    ServiceThread refused(module, &wrong);
    ServiceThread admitted(module, &right);
    ServiceThread unknown(module);
    return refused.Ask("r1", 0) + "|" + refused.Ask("none", 0) + "|" + admitted.Ask("r1", 0) + "|" +
           unknown.Ask("r1", 0);
  });
  const std::string records =
      "0 <ReportData Name=\"r1\" StartIndex=\"0\" NextIndex=\"1\"><![CDATA[secret\r\n]]></ReportData>\n";
  EXPECT_EQ(
      text,
      "0 (null)|12 <Error Msg=\"Report data for report &apos;none&apos; could not be read\" LastError=\"2\"/>\n|" +
          records + "|" + records);
}

TEST_F(ModuleRequests, InstanceNamesAreListedAndNeverForACallerWithoutThePrivilege) {
  WriteFile(Reports() + "/r1.names", "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=secret\n");
  WriteFile(Reports() + "/r2.names", "[Quaxel Report Instances]\nVersion=2\n");
  const std::string text = InChild([] {
    const LoadedModule module;
    const std::vector<BlockDepartment> wrong = {{"Operations", {"accessperformancemgr"}}};
    ServiceThread refused(module, &wrong);
    ServiceThread unknown(module);
    std::string replies;
    for (ServiceThread* const thread : {&unknown, &refused}) {
      for (const char* const name : {"r1", "r2", "none"}) {
        replies += thread->Call("GetReportInstanceNames",
                                ("<ReportInstanceNames Name=\"" + std::string(name) + "\"/>").c_str()) +
                   "|";
      }
    }
    return replies;
  });
  const std::string not_found = "12 <Error Msg=\"Report instance names file not found\" LastError=\"2\"/>\n|";
  EXPECT_EQ(
      text,
      "0 <ReportInstanceNames Name=\"r1\" Version=\"1\" NrInstances=\"1\">\n<Instance Nr=\"1\">secret</Instance>\n"
      "</ReportInstanceNames>\n|0 (null)|" +
          not_found +
          "0 (null)|0 <Error Msg=\"Required security privilege &quot;AccessPerformanceMgr&quot; missing - access "
          "not granted!\" LastError=\"1313\"/>\n|" +
          not_found);
}

TEST_F(ModuleRequests, RequestWithoutReportDataHasAnErrorOfTheTransfer) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              ServiceThread thread(module);
              return thread.Call("GetReports", "<Other/>");
            }),
            "12 <Error Msg=\"Report data for report &apos;&apos; could not be read\" LastError=\"2\"/>\n");
}

TEST_F(ModuleRequests, BlockWithoutElementOneLeaksNoThreadData) {
  Append("r1", 4, {"a"});
  // Each call opens the report again. The number of open descriptors, and the leak check of the address sanitizer, show
  // that it is closed.
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              BlockBuilder block;
              block.Number(2, 77);
              std::string text;
              for (int i = 0; i < 3; ++i) text = module.Call("GetReports", block.Block(), "<ReportData Name=\"r1\"/>");
              const std::string open = qx::test::OutputOf("ls -l /proc/" + std::to_string(getpid()) + "/fd");
              return text + (open.find("r1.dat") == std::string::npos ? "closed" : "still open");
            }),
            "0 <ReportData Name=\"r1\" StartIndex=\"0\" NextIndex=\"1\"><![CDATA[a\r\n]]></ReportData>\nclosed");
}

TEST_F(ModuleRequests, ReportIsClosedByThreadEnd) {
  Append("r1", 4, {"a", "b"});
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              const auto is_open = [] {
                const std::string open = qx::test::OutputOf("ls -l /proc/" + std::to_string(getpid()) + "/fd");
                return open.find("r1.dat") != std::string::npos ? "open " : "closed ";
              };
              std::string text;
              {
                ServiceThread thread(module);
                (void)thread.Ask("r1", 0, 1);
                text += is_open();
              }
              return text + is_open();
            }),
            "open closed ");
}

// A whole session at the highest level must be logged line by line. QX_UPDATE_GOLDEN writes the expected file again.
TEST_F(ModuleRequests, WholeSessionAtLevelSixIsLoggedLineByLine) {
  Append("r1", 10, {"first", "second <2>", "third"});
  SetLevel(6);
  const std::string text = InChild([] {
    const LoadedModule module;
    const std::vector<BlockDepartment> departments = {{"Operations", {"AccessPerformanceMgr"}}};
    ServiceThread thread(module, &departments);
    (void)thread.Call("What", "");
    (void)thread.Call("Reflect", "<a b=\"1\"/>");
    (void)thread.Call("Reflect", "<a>");
    (void)thread.Ask("r1", 0, 2);
    (void)thread.Ask("r1", 2);
    (void)thread.Ask("r1", 3);
    (void)module.Symbol<QxHandleVersionFunction>("__handle_version")();
    module.Symbol<QxStopRequestFunction>("__stoprequest")();
    return std::string("done");
  });
  EXPECT_EQ(text, "done");
  std::string log = LogEntries();
  const std::string golden = QX_MODULE_TESTS "/level-six-log.txt";
  if (std::getenv("QX_UPDATE_GOLDEN") != nullptr) WriteFile(golden, log);
  EXPECT_EQ(log, ReadFile(golden));
}

}  // namespace
