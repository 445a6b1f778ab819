// Tests qxctl names and module names: the instance names of a report, as the module lists them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

class QxctlNames : public testing::Test, protected QxctlFixture {
 protected:
  void MakeNames(const std::string& entries, const std::string& version = "1") const {
    WriteFile(ReportPath("disk") + ".names", "[Quaxel Report Instances]\nVersion=" + version + "\n[Names]\n" + entries);
  }
};

}  // namespace

TEST_F(QxctlNames, NumbersAndNamesArePrintedInTheOrderOfTheFile) {
  MakeNames("2=South\n1=North <R&D>\n3=\n");
  const Ran ran = Qxctl({"names", "disk"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.err, "");
  EXPECT_EQ(ran.out, "2=South\n1=North <R&D>\n3=\n");
}

TEST_F(QxctlNames, WithoutInstancesNothingIsPrinted) {
  MakeNames("");
  EXPECT_EQ(Qxctl({"names", "disk"}).out, "");
  EXPECT_EQ(json::parse(Qxctl({"names", "disk", "--json"}).out),
            json({{"report", "disk"}, {"instances", json::array()}}));
}

TEST_F(QxctlNames, BytesOfANameArePrintedAndControlBytesAreMadeVisible) {
  MakeNames("1=K\xC3\xA4lte\n2=a\x1B[31mb\\c\n3=\xE4\n");
  EXPECT_EQ(Qxctl({"names", "disk"}).out, "1=K\xC3\xA4lte\n2=a\\x1B[31mb\\\\c\n3=\xE4\n");
  const json instances = json::parse(Qxctl({"names", "disk", "--json"}).out)["instances"];
  EXPECT_EQ(instances[0], json({{"number", "1"}, {"name", "K\xC3\xA4lte"}}));
  EXPECT_EQ(instances[1], json({{"number", "2"}, {"name", "a\x1B[31mb\\c"}}));
  EXPECT_EQ(instances[2], json({{"number", "3"}, {"name", nullptr}, {"nameBase64", "5A=="}}));
}

TEST_F(QxctlNames, NameOfAReportThatIsNotUtf8IsInBase64) {
  WriteFile(ReportPath("d\xE4") + ".names", "[Quaxel Report Instances]\nVersion=1\n[Names]\n");
  EXPECT_EQ(json::parse(Qxctl({"names", "d\xE4", "--json"}).out),
            json({{"report", nullptr}, {"reportBase64", "ZOQ="}, {"instances", json::array()}}));
}

TEST_F(QxctlNames, ReportWithoutNamesFileIsNotFound) {
  const Ran ran = Qxctl({"names", "disk"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: no report disk in "));
}

TEST_F(QxctlNames, OtherVersionAndMissingPrivilegeAreRefused) {
  MakeNames("1=x\n", "2");
  EXPECT_EQ(Qxctl({"names", "disk"}).code, 5);
  const Ran both = Qxctl({"names", "disk", "--user", "nobody"});
  EXPECT_EQ(both.code, 5);
  EXPECT_THAT(both.err, HasSubstr("AccessPerformanceMgr"));
  MakeNames("1=x\n");
  const Ran refused = Qxctl({"names", "disk", "--user", "nobody"});
  EXPECT_EQ(refused.code, 5);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(Qxctl({"names", "disk", "--user", "u", "--privilege", "Ops:AccessPerformanceMgr"}).out, "1=x\n");
}

TEST_F(QxctlNames, ReplyWithoutListAndWithoutErrorIsAFailure) {
  const TempDir fake;
  WriteFile(fake.File("reply.1"), "0\n<Other/>\n");
  Start start;
  start.environment = {{"QX_FAKE", fake.Path()}, {"QX_MODULE", FakeModulePath()}};
  EXPECT_EQ(Qxctl({"names", "disk"}, start).code, 6);
}

TEST_F(QxctlNames, SingleCallShowsTheDocument) {
  MakeNames("1=x\n");
  const Ran ran = Qxctl({"module", "names", "disk"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out,
            "<ReportInstanceNames Name=\"disk\" Version=\"1\" NrInstances=\"1\">\n<Instance Nr=\"1\">x</Instance>\n"
            "</ReportInstanceNames>\n");
  EXPECT_EQ(Qxctl({"module", "names", "none"}).code, 4);
  EXPECT_EQ(Qxctl({"module", "names"}).code, 2);
  EXPECT_EQ(Qxctl({"module", "names", "--input", "<ReportInstanceNames Name=\"disk\"/>"}).out, ran.out);
}

}  // namespace qx::test
