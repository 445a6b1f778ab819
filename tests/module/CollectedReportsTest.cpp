// Tests the reports of a collector with the built module, the tool and a reader: none of them knows where the records
// come from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sdk/Reader.h"
#include "tests/module/Host.h"
#include "tests/qxrelay/FakeConsume.h"
#include "tools/qxrelay/receive/Receiver.h"

namespace {

using namespace qx::relay;
using qx::test::InChild;
using qx::test::LoadedModule;
using qx::test::ServiceThread;

class ModuleCollectedReports : public qx::test::ModuleTest {
 protected:
  // Fills the report directory with the reports that three hosts have sent.
  static void Collect() {
    qx::test::FakeConsume stream;
    for (const std::string host : {"host1", "host2", "host3"}) {
      qx::test::FakeSender sender(stream, host, "machine");
      sender.Send({host + " first\r\n", host + " second\r\n"});
      sender.Gap(10);
      sender.Send({host + " third\r\n"});
      const std::string names = "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=cpu of " + host + "\n";
      stream.Publish("qx.names." + host + ".machine",
                     EncodeMessage({.kind = MessageKind::kNames, .count = 1, .report = "machine"},
                                   std::vector<std::uint32_t>{static_cast<std::uint32_t>(names.size())}, names));
    }
    CollectorRoot root;
    ASSERT_EQ(root.Open(Reports()), std::nullopt);
    ReceiveContext context = {.stream = stream,
                              .root = root,
                              .log = [](const std::string&) {},
                              .random = [] { return 0.0; },
                              .stream_settings = {},
                              .settings = {}};
    Receiver receiver(context, "c");
    for (TimeMs now = 10'000; now < 15'000; now += 500) (void)receiver.Step(now, 1);
    receiver.Finish(20'000);
    EXPECT_EQ(stream.acknowledged.size(), 12U);
  }
};

TEST_F(ModuleCollectedReports, TheModuleTransfersThemAsAnyReport) {
  Collect();
  EXPECT_EQ(
      InChild([] {
        const LoadedModule module;
        ServiceThread thread(module);
        std::string replies = thread.Ask("host3/machine", 0, 2);
        replies += thread.Ask("host3/machine", 2, 2);
        replies += thread.Ask("host1/machine", 0, 1);
        replies += thread.Ask("host4/machine", 0);
        return replies + thread.Call("GetReportInstanceNames", "<ReportInstanceNames Name=\"host2/machine\"/>");
      }),
      "0 <ReportData Name=\"host3/machine\" StartIndex=\"0\" NextIndex=\"2\"><![CDATA[host3 first\r\nhost3 second\r\n"
      "]]></ReportData>\n"
      "0 <ReportData Name=\"host3/machine\" StartIndex=\"2\" NextIndex=\"3\"><![CDATA[host3 third\r\n"
      "]]></ReportData>\n"
      "0 <ReportData Name=\"host1/machine\" StartIndex=\"0\" NextIndex=\"1\"><![CDATA[host1 first\r\n"
      "]]></ReportData>\n"
      "12 <Error Msg=\"Report data for report &apos;host4/machine&apos; could not be read\" LastError=\"2\"/>\n"
      "0 <ReportInstanceNames Name=\"host2/machine\" Version=\"1\" NrInstances=\"1\">\n<Instance Nr=\"1\">cpu of "
      "host2</Instance>\n"
      "</ReportInstanceNames>\n");
}

TEST_F(ModuleCollectedReports, TheToolAndAReaderReadThem) {
  Collect();
  EXPECT_EQ(qx::test::OutputOf(std::string(QX_QXCTL) + " report cat host2/machine"),
            "host2 first\r\nhost2 second\r\nhost2 third\r\n");
  EXPECT_EQ(qx::test::OutputOf(std::string(QX_QXCTL) + " fetch --quiet --module " + QX_MODULE_PATH + " host3/machine"),
            "host3 first\r\nhost3 second\r\nhost3 third\r\n");
  qx::Reader reader;
  ASSERT_FALSE(reader.Open(Reports() + "/host1/machine").Failed());
  std::vector<std::string> texts;
  for (const qx::RecordView& record : reader) texts.emplace_back(record.text);
  EXPECT_THAT(texts, testing::ElementsAre("host1 first", "host1 second", "host1 third"));
}

}  // namespace
