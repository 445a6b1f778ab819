// The worked sessions of docs/qxctl.md are run as they stand and compared with what is printed there.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

// A console session: each line that begins with "$ " is run by a shell in `directory`; what it prints on both outputs,
// and its exit code if that is not 0, stands below it.
std::string Replay(const std::string& session, const Start& start) {
  std::string script = "qxctl() { \"$QXCTL\" \"$@\"; }\n";
  std::istringstream lines(session);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("$ ")) continue;
    script +=
        "cat <<'EOF_OF_LINE'\n" + line + "\nEOF_OF_LINE\n{ " + line.substr(2) + "\n} 2>&1 || echo \"exit code $?\"\n";
  }
  const Ran ran = Child({"/bin/bash", "-c", script}, start).Wait();
  EXPECT_EQ(ran.err, "");
  return ran.out;
}

// Times, rates, versions and dates differ from run to run. Records end with CR LF, of which a page shows the LF.
std::string WithoutWhatVaries(std::string text) {
  text = std::regex_replace(text, std::regex("\r\n"), "\n");
  text = std::regex_replace(text, std::regex("[0-9.]+ (ms|MB/s)"), "N $1");
  text = std::regex_replace(text, std::regex("(\"seconds\"|\"bytesPerSecond\"): [-0-9.e]+"), "$1: N");
  text = std::regex_replace(text, std::regex("(version|date)=(\\\\?\")[-0-9./:]+"), "$1=$2...");
  return text;
}

class QxctlDocs : public testing::Test, protected QxctlFixture {
 protected:
  QxctlDocs() { std::filesystem::remove(Dir().File("Reports")); }

  void ExpectAsPrinted(const std::string& example) const {
    Start start = StartHere();
    start.environment["QXCTL"] = QxctlPath();
    const std::string session = DocExample("qxctl.md", example);
    EXPECT_EQ(WithoutWhatVaries(Replay(session, start)), WithoutWhatVaries(session)) << example;
  }
};

}  // namespace

// One story: later sessions use what earlier ones made.
TEST_F(QxctlDocs, EverySessionPrintsWhatThePageShows) {
  for (const char* const example : {"create", "append", "cat", "info", "info-json", "what", "reflect", "reports",
                                    "reports-json", "fetch", "fetch-json", "refused", "not-found", "omit", "trace"}) {
    ExpectAsPrinted(example);
  }
}

}  // namespace qx::test
