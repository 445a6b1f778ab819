// Checks the JSON documents of the commands that test and show modules against docs/schemas/.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

class QxctlSchema : public testing::Test, protected QxctlFixture {
 protected:
  // The faults of the document that the command prints.
  std::string Faults(std::vector<std::string> arguments, const std::string& fault = "") const {
    Start start = StartHere();
    start.environment["QX_REAL_MODULE"] = ModulePath();
    start.environment["QX_FAULT"] = fault;
    if (!fault.empty()) start.environment["QX_MODULE"] = QX_FAULTY_MODULE;
    arguments.emplace_back("--json");
    std::string transcript = "$ qxctl";
    for (const std::string& argument : arguments) transcript += " " + argument;
    return Check(transcript + "\n" + Qxctl(arguments, start).out);
  }

  static std::string Check(const std::string& transcript) {
    EXPECT_THAT(transcript, testing::HasSubstr("\n{"));
    const std::string source = QX_SOURCE_DIR;
    const std::vector<std::string> command = {"/usr/bin/python3", source + "/tests/docs/check_documents.py",
                                              source + "/docs/schemas"};
    const Ran ran = Child(command, {.directory = source, .input = transcript}).Wait();
    return ran.out + ran.err;
  }
};

}  // namespace

TEST_F(QxctlSchema, EveryDocumentMatchesItsSchema) {
  EXPECT_EQ(Faults({"module", "load-test", "--requests", "100"}), "");
  EXPECT_EQ(Faults({"module", "load-test", "--requests", "1000"}, "wrong-reply"), "");
  EXPECT_EQ(Faults({"module", "faults", "order"}), "");
  EXPECT_EQ(Faults({"module", "faults", "order"}, "deleted-stays"), "");
  EXPECT_EQ(Qxctl({"module", "record", "what.json", "what"}).code, 0);
  EXPECT_EQ(Faults({"module", "replay", "what.json"}), "");
  EXPECT_EQ(Faults({"module", "replay", "what.json"}, "wrong-reply"), "");
  EXPECT_EQ(Faults({"doctor"}), "");
  EXPECT_EQ(Faults({"setup", "--directory", "etc", "--reports", "srv"}), "");
  EXPECT_EQ(Faults({"setup", "--directory", "etc", "--reports", "srv", "--apply"}), "");
  EXPECT_EQ(Faults({"setup", "--directory", "etc", "--reports", "other"}), "");
  EXPECT_EQ(Faults({"explain", "--list"}), "");
}

TEST_F(QxctlSchema, LoadTestDocumentOfTheDocsMatchesItsSchema) {
  EXPECT_EQ(Check("$ qxctl module load-test --json\n" + DocExample("testing-modules.md", "load-test-json")), "");
}

TEST_F(QxctlSchema, DocumentThatDoesNotMatchIsNoticed) {
  EXPECT_NE(Check("$ qxctl doctor --json\n{\"findings\": [{\"code\": \"X\"}], \"exitCode\": 0}\n"), "");
}

}  // namespace qx::test
