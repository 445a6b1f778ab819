// The worked sessions of docs/qxctl.md and docs/operations.md are run as they stand and compared with what is printed
// there.
#include <gtest/gtest.h>
#include <regex.h>

#include <filesystem>
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

// Puts "N" in the place of the pattern's second group, everywhere. The pattern has three groups and always matches
// something, so the search gets on. (The standard library's expressions do not compile cleanly under the sanitizers.)
std::string WithNumbersHidden(const std::string& text, const char* pattern) {
  regex_t compiled;
  EXPECT_EQ(regcomp(&compiled, pattern, REG_EXTENDED), 0) << pattern;
  std::string hidden;
  const char* rest = text.c_str();
  for (regmatch_t groups[4]; regexec(&compiled, rest, 4, groups, 0) == 0; rest += groups[3].rm_so) {
    hidden.append(rest, static_cast<std::size_t>(groups[2].rm_so)).append("N");
  }
  regfree(&compiled);
  return hidden + rest;
}

// Times, rates, versions and dates differ from run to run. Records end with CR LF, of which a page shows the LF.
std::string WithoutWhatVaries(std::string text) {
  std::erase(text, '\r');
  text = WithNumbersHidden(text, "()([0-9.]+)( ms| MB/s)");
  text = WithNumbersHidden(text, "(econds\"|Second\")(: [-+0-9.e]+)(,|)");
  text = WithNumbersHidden(text, "(\\.partial-)([A-Za-z0-9]{6})(:)");
  return WithNumbersHidden(text, "( version=\"| date=\")([-0-9./:]+)(\")");
}

class QxctlDocs : public testing::Test, protected QxctlFixture {
 protected:
  QxctlDocs() { std::filesystem::remove(Dir().File("Reports")); }

  void ExpectAsPrinted(const std::string& example, const std::string& page = "qxctl.md") const {
    Start start = StartHere();
    start.environment["QXCTL"] = QxctlPath();
    const std::string session = DocExample(page, example);
    EXPECT_EQ(WithoutWhatVaries(Replay(session, start)), WithoutWhatVaries(session)) << example;
  }
};

}  // namespace

// One story: later sessions use what earlier ones made.
TEST_F(QxctlDocs, EverySessionPrintsWhatThePageShows) {
  for (const char* const example :
       {"create",  "append",       "cat",        "info",        "info-json",    "what",      "reflect",
        "reports", "reports-json", "fetch",      "fetch-json",  "refused",      "not-found", "omit",
        "trace",   "names",        "names-json", "registry-ls", "registry-get", "ini"}) {
    ExpectAsPrinted(example);
  }
}

TEST_F(QxctlDocs, EverySessionAboutTracesPrintsWhatThePageShows) {
  for (const char* const example : {"trace-show", "trace-config"}) ExpectAsPrinted(example);
}

TEST_F(QxctlDocs, EverySessionOfTheOperationsPagePrintsWhatThePageShows) {
  for (const char* const example : {"set-up", "verify", "damaged", "salvage", "replace", "backup", "plan", "restore"}) {
    ExpectAsPrinted(example, "operations.md");
  }
}

}  // namespace qx::test
