// Runs every console session of every page as written, and compares its output with the page.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/docs/Page.h"
#include "tests/docs/Replay.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

std::vector<std::string> PagesWithSessions() {
  std::vector<std::string> names;
  for (const std::string& name : PageNames()) {
    if (!ReadPage(name).sessions.empty()) names.push_back(name);
  }
  return names;
}

// "docs/ini-files.md" => "docs_ini_files"
std::string TestNameOf(const testing::TestParamInfo<std::string>& info) {
  std::string name = std::filesystem::path(info.param).replace_extension().string();
  for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  return name;
}

// The faults of the JSON documents that the sessions print, according to docs/schemas/.
Ran CheckDocuments(const std::string& transcript) {
  const std::string source = QX_SOURCE_DIR;
  const std::vector<std::string> command = {"/usr/bin/python3", source + "/tests/docs/check_documents.py",
                                            source + "/docs/schemas"};
  return Child(command, {.directory = source, .input = transcript}).Wait();
}

class DocsSessions : public testing::TestWithParam<std::string> {};

}  // namespace

// A later session of a page uses files that an earlier one has made.
TEST_P(DocsSessions, PrintWhatThePageShows) {
  const Page page = ReadPage(GetParam());
  const std::vector<std::string> printed = Replay(page.sessions, page.is_of_new_machine);
  std::string transcript;
  for (std::size_t i = 0; i < page.sessions.size(); ++i) {
    const Session& session = page.sessions[i];
    if (!session.not_run.empty()) continue;
    EXPECT_EQ(WithoutWhatVaries(printed[i]), WithoutWhatVaries(session.text)) << page.name << ":" << session.line;
    transcript += printed[i];
  }
  const Ran checked = CheckDocuments(transcript);
  EXPECT_EQ(checked.out + checked.err, "");
  EXPECT_EQ(checked.code, 0);
}

INSTANTIATE_TEST_SUITE_P(Pages, DocsSessions, testing::ValuesIn(PagesWithSessions()), TestNameOf);

// The page repairs the machine only with commands that qxctl has printed before.
TEST(DocsFirstDay, EveryRepairIsACommandThatQxctlHasPrinted) {
  const Page page = ReadPage("docs/first-day.md");
  ASSERT_TRUE(page.is_of_new_machine);
  const std::vector<std::string> printed = Replay(page.sessions, true);
  std::string before;
  std::size_t count = 0;
  std::istringstream lines(printed.back());
  for (std::string line; std::getline(lines, line); before += line + "\n") {
    if (!line.starts_with("$ ")) continue;
    const std::string command = line.substr(2);
    const bool asks = command.starts_with("qxctl doctor") || command.starts_with("qxctl fetch");
    if (asks) continue;
    EXPECT_NE(before.find("    " + command + "\n"), std::string::npos) << command;
    ++count;
  }
  EXPECT_GE(count, 2U);
  EXPECT_NE(printed.back().find("\n$ qxctl fetch load\n09:00 load 0.12\r\n"), std::string::npos)
      << "the report is on the terminal again: " << printed.back();
}

TEST(DocsSessionsFound, PagesWithSessionsAreFound) {
  EXPECT_THAT(PagesWithSessions(), testing::IsSupersetOf({"docs/operations.md", "docs/qxctl.md"}));
}

// The sessions that this suite cannot run, as "PAGE: REASON". Nothing checks their output.
TEST(DocsSessionsFound, OnlyKnownSessionsAreNotRun) {
  const std::vector<std::string> known = {};
  std::vector<std::string> found;
  for (const std::string& name : PageNames()) {
    for (const Session& session : ReadPage(name).sessions) {
      if (!session.not_run.empty()) found.push_back(name + ": " + session.not_run);
    }
  }
  EXPECT_THAT(found, testing::UnorderedElementsAreArray(known));
}

TEST(DocsReplay, ContinuedCommandIsRunWholeAndItsExitCodeIsShown) {
  const std::string session =
      "$ cat <<'END'\n> one\n> END\none\n$ printf a \\\n> && false\naexit code 1\n$ echo '> no command' | cat\n> no "
      "command\n";
  EXPECT_EQ(Replay({{1, session, ""}}).front(), session);
}

TEST(DocsReplay, OneShellRunsAllSessionsInOneDirectory) {
  const std::vector<Session> sessions = {
      {1, "$ mkdir a && cd a\n", ""}, {5, "$ rm -rf /\n", "no"}, {9, "$ pwd | sed 's,.*/,,'\n", ""}};
  EXPECT_THAT(Replay(sessions), testing::ElementsAre("$ mkdir a && cd a\n", "", "$ pwd | sed 's,.*/,,'\na\n"));
}

TEST(DocsReplay, OnlyVaryingTextIsHidden) {
  EXPECT_EQ(WithoutWhatVaries("What: result 0, reply 88 bytes, 0.031 ms\r\n"),
            "What: result 0, reply 88 bytes, N ms\n");
}

}  // namespace qx::test
