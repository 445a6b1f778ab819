// Tests qxctl module faults: the real module survives the faults of a bad host, and each fault of a bad module is
// found.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

class QxctlFaults : public testing::Test, protected QxctlFixture {
 protected:
  Ran Faults(std::vector<std::string> arguments, const std::string& fault = "") const {
    Start start = StartHere();
    if (!fault.empty()) {
      start.environment["QX_REAL_MODULE"] = ModulePath();
      start.environment["QX_MODULE"] = QX_FAULTY_MODULE;
      start.environment["QX_FAULT"] = fault;
    }
    arguments.insert(arguments.begin(), {"module", "faults"});
    return Qxctl(arguments, start);
  }

  // The outcomes that are findings, as "NAME: OUTCOME".
  std::vector<std::string> Findings(const std::string& fault, std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--json", "--timeout", "3"});
    const Ran ran = Faults(arguments, fault);
    EXPECT_EQ(ran.code, 1) << ran.err;
    const json document = json::parse(ran.out);
    std::vector<std::string> findings;
    for (const json& one : document["cases"]) {
      if (one["verdict"] == "finding") {
        findings.push_back(one["name"].get<std::string>() + ": " + one["outcome"].get<std::string>());
      }
    }
    return findings;
  }
};

constexpr char kCrash[] = "killed by signal 11 (Segmentation fault)";

}  // namespace

TEST_F(QxctlFaults, ModuleSurvivesEveryCase) {
  const Ran ran = Faults({"--json"});
  EXPECT_EQ(ran.code, 0) << ran.out << ran.err;
  const json document = json::parse(ran.out);
  EXPECT_GE(document["cases"].size(), 60U);
  std::set<std::string> names;
  for (const json& one : document["cases"]) {
    EXPECT_EQ(one["verdict"], "ok") << one;
    names.insert(one["name"]);
  }
  EXPECT_EQ(names.size(), document["cases"].size()) << "each name once";
}

TEST_F(QxctlFaults, TableHasALineForEachCase) {
  const Ran ran = Faults({"order/version", "free-null"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out,
            "ok       order/free-null                    Frees a null reply\n"
            "ok       order/version                      Asks for the version of the calling rules\n");
}

TEST_F(QxctlFaults, CrashIsAFindingAndTheOtherCasesStillRun) {
  EXPECT_THAT(Findings("crash-null-block", {"block"}), ElementsAre(std::string("null-block: ") + kCrash));
  EXPECT_THAT(Findings("crash-loop", {"block"}), ElementsAre(std::string("connection-loops: ") + kCrash));
  EXPECT_THAT(Findings("keep-reply", {"block"}), ElementsAre(std::string("null-reply-place: ") + kCrash));
  EXPECT_THAT(Findings("end-twice", {"end-first", "version"}), ElementsAre(std::string("end-first: ") + kCrash));
  EXPECT_THAT(Findings("load-crash", {"reload", "version"}), ElementsAre(std::string("reload: ") + kCrash));
}

// The command itself handles SIGALRM while it runs; its cases do not.
TEST_F(QxctlFaults, AlarmKillsACase) {
  EXPECT_THAT(Findings("alarm-null-block", {"null-block"}),
              ElementsAre("null-block: killed by signal 14 (Alarm clock)"));
}

TEST_F(QxctlFaults, CaseThatDoesNotEndIsAFinding) {
  EXPECT_THAT(Findings("hang-loop", {"connection-loops"}), ElementsAre("connection-loops: no end within the time"));
}

TEST_F(QxctlFaults, WrongResultOrReplyIsAFinding) {
  EXPECT_THAT(Findings("accept-no-thread", {"block/thread-missing", "block/thread-zero"}),
              ElementsAre("thread-missing: result 0, <ReportData>"));
  EXPECT_THAT(Findings("echo-malformed", {"echo-roots", "echo-wide"}),
              ElementsAre("echo-roots: result 0, no document"));
  EXPECT_THAT(Findings("deleted-stays", {"delete-twice"}), ElementsAre("delete-twice: the object is still there"));
}

TEST_F(QxctlFaults, ServingACallerWithoutThePrivilegeIsAFinding) {
  const std::vector<std::string> findings = Findings("forget-refusal", {"security"});
  EXPECT_THAT(findings, testing::Contains("authorization-null: result 0, <ReportData>"));
  EXPECT_THAT(findings, testing::Contains("privilege-lower-case: result 0, <ReportData>"));
  EXPECT_THAT(findings, testing::Not(testing::Contains(HasSubstr("null-entries"))));
}

TEST_F(QxctlFaults, FindingShowsWhatWasExpectedAndWhatHappened) {
  const Ran ran = Faults({"delete-twice"}, "deleted-stays");
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out,
            "finding  order/delete-twice                 Deletes the module object twice\n"
            "         expected  no object\n"
            "         outcome   the object is still there\n");
  EXPECT_THAT(ran.err, HasSubstr("1 of 1 cases did not have the expected outcome"));
}

TEST_F(QxctlFaults, ListRunsNoCase) {
  const Ran ran = Faults({"--list", "--module", "none.so"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_THAT(ran.out, HasSubstr("security/privileges-huge: Counts 2147483647 privileges in a null array\n"));
}

TEST_F(QxctlFaults, ModuleThatDoesNotLoadIsReportedOnce) {
  EXPECT_EQ(Faults({"--module", "none.so"}).code, 4);
  WriteFile(Dir().File("text.so"), "not a library");
  const Ran ran = Faults({"--module", "text.so"});
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("cannot load the module: "));
  EXPECT_EQ(ran.out, "");
}

TEST_F(QxctlFaults, UnknownCaseIsAUsageError) { EXPECT_EQ(Faults({"none"}).code, 2); }

}  // namespace qx::test
