// Makes every system call of a copy, a removal and a restore fail once.
//
// strace records the calls of a small program that concern its directories "from" and "to". Then the program runs again
// once for each of these calls, and this call fails. In every run no other file is changed. If the result is false, the
// trace reports the failure; if it is true, everything was done, or the trace reports what was not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/reportfile/Trees.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

using testing::HasSubstr;

// A call of the recorded run: the nth of its name.
struct Call {
  std::string name;
  int nth;
  std::string line;
};

// The error with which a call of this name fails; calls that are not in the table fail with EIO.
const char* ErrorOf(const std::string& call) {
  static const std::map<std::string, const char*> kErrors = {
      {"openat", "EMFILE"}, {"write", "ENOSPC"}, {"mkdirat", "ENOSPC"}, {"unlinkat", "EBUSY"},
      {"chmod", "EPERM"},   {"fchown", "EPERM"}, {"ftruncate", "EPERM"}};
  const auto found = kErrors.find(call);
  return found != kErrors.end() ? found->second : "EIO";
}

int NumberOf(const std::string& error) {
  static const std::map<std::string, int> kNumbers = {
      {"EMFILE", EMFILE}, {"ENOSPC", ENOSPC}, {"EBUSY", EBUSY}, {"EPERM", EPERM}, {"EIO", EIO}};
  return kNumbers.at(error);
}

// The exit status of a command; -1 when it did not exit by itself.
int Execute(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

class DirectoryFaults : public testing::TestWithParam<const char*> {
 protected:
  DirectoryFaults() : log_directory_("QX_LOG_RINGBUF_DIR", trace_.Path().c_str()), level_("QX_LOG_DEBUG_LEVEL", "6") {
    WriteFile(dir_.File("registry"), RegistryWithReportRoot(dir_.File("to")));
    MakeTree(dir_.File("outside"), {{"a.dat", "not ours"}, {"sub/b.dat", "not ours either"}});
  }

  // "copy", "copy by blocks", "remove" or "restore".
  std::string Scenario() const { return std::string(GetParam()).substr(0, std::string(GetParam()).find(' ')); }
  bool IsByBlocks() const { return std::strstr(GetParam(), "blocks") != nullptr; }

  // Each restore waits for the disk, so its tree is smaller, and fewer calls are tested.
  static Tree TreeOf(const std::string& scenario) {
    Tree tree = {{"b.dat", "new b"}, {"sub/", ""}, {"sub/c.dat", "c"}};
    if (scenario != "restore") tree.insert({{"a.dat", std::string(40000, 'a')}, {"empty", ""}});
    return tree;
  }

  void Prepare() const {
    for (const char* const name : {"from", "to"}) std::filesystem::remove_all(dir_.File(name));
    MakeTree(dir_.File("from"), from_);
    MakeTree(dir_.File("to"), to_);
  }

  // Runs the scenario under strace with more options, from the same initial files; the calls are in Notes().
  int RunUnderStrace(const std::vector<std::string>& options) const {
    Prepare();
    std::vector<std::string> command = {"strace", "-y", "-s", "4096", "-o", Notes()};
    if (IsByBlocks()) command.insert(command.end(), {"-e", "inject=copy_file_range:error=EOPNOTSUPP"});
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), {QX_FAULTS_PROGRAM, Scenario(), dir_.Path()});
    return Execute(command);
  }

  int RunWithFailing(const Call& call) const {
    return RunUnderStrace(
        {"-e", "inject=" + call.name + ":error=" + ErrorOf(call.name) + ":when=" + std::to_string(call.nth)});
  }

  // The recorded calls that name one of the two directories or one of their files.
  std::vector<Call> NotedCalls() const {
    std::map<std::string, int> counts;
    std::vector<Call> calls;
    std::istringstream notes(ReadFile(Notes()));
    for (std::string line; std::getline(notes, line);) {
      const std::string name = line.substr(0, line.find('('));
      const int nth = ++counts[name];
      if (IsAboutTheCopy(line) && !(IsByBlocks() && name == "copy_file_range")) calls.push_back({name, nth, line});
    }
    return calls;
  }

  bool IsAboutTheCopy(const std::string& line) const {
    for (const std::string& own : {trace_.Path(), dir_.File("registry")}) {
      if (line.find(own) != std::string::npos) return false;
    }
    return line.find(dir_.File("from")) != std::string::npos || line.find(dir_.File("to")) != std::string::npos;
  }

  // If the system cannot store a written file, `close` may report it.
  bool EndsWriting(const Call& call) const {
    return call.name == "close" && call.line.find(dir_.File("to/")) != std::string::npos;
  }

  // Every file has the old or the new content, never a mixture.
  void ExpectWholeFiles() const {
    for (const auto& [path, contents] : ContentsOf(dir_.File("to"))) {
      const auto old = to_.find(path);
      const auto copied = from_.find(path);
      const bool is_old = old != to_.end() && old->second == contents;
      const bool is_new = copied != from_.end() && copied->second == contents;
      EXPECT_TRUE(is_old || is_new || path.ends_with('/')) << path;
    }
  }

  void ExpectTruth(const Call& call, const Tree& from_after, const Tree& to_after) const {
    ExpectWholeFiles();
    const bool is_as_without = ContentsOf(dir_.File("from")) == from_after && ContentsOf(dir_.File("to")) == to_after;
    EXPECT_TRUE(is_as_without || IsTraced(call)) << "an entry is missing without a trace";
    EXPECT_TRUE(Scenario() != "restore" || ContentsOf(dir_.File("to")) == to_after) << "true, but not all is restored";
    EXPECT_TRUE(call.name != "getdents64" || Scenario() != "copy") << "true, but a listing ended early";
    EXPECT_FALSE(EndsWriting(call));
  }

  // If a restore returns false, it failed while it copied, or the backup is still there.
  void ExpectNothingLost() const {
    const bool has_failed_to_copy = Log().find("CDirectory::CopyDir() - ## ERROR:") != std::string::npos;
    EXPECT_TRUE(has_failed_to_copy || ContentsOf(dir_.File("from")) == from_) << Log();
  }

  // The trace has the error. If a removal leaves an entry that it cannot check, the trace has the consequence.
  bool IsTraced(const Call& call) const {
    const std::string log = Log();
    const bool says_not_empty = call.name == "newfstatat" && log.find(std::strerror(ENOTEMPTY)) != std::string::npos;
    const int error = NumberOf(ErrorOf(call.name));
    char number[16];
    std::snprintf(number, sizeof number, "ERROR 0x%X ", static_cast<unsigned>(error));
    return says_not_empty || log.find(std::strerror(error)) != std::string::npos ||
           log.find(number) != std::string::npos;
  }

  std::string Notes() const { return trace_.File("notes"); }
  std::string Log() const { return ReadFile(trace_.File("log.faults")); }

  const TempDir dir_;
  const TempDir trace_;
  const ScopedEnv log_directory_;
  const ScopedEnv level_;
  const Tree from_ = TreeOf(Scenario());
  const Tree to_ = {{"b.dat", "an old and longer b"}, {"kept.dat", "kept"}};
};

TEST_P(DirectoryFaults, EachFailedCallIsTracedAndChangesNoOtherFile) {
  ASSERT_EQ(Execute({"strace", "-o", Notes(), "true"}), 0)
      << "strace is missing (script/bootstrap test installs it) or may not trace its own child (ptrace is forbidden)";
  ASSERT_EQ(RunUnderStrace({}), 0);
  const std::vector<Call> calls = NotedCalls();
  ASSERT_GT(calls.size(), 25U);
  const Tree from_after = ContentsOf(dir_.File("from"));
  const Tree to_after = ContentsOf(dir_.File("to"));
  const Tree outside = ContentsOf(dir_.File("outside"));
  const std::string registry = ReadFile(dir_.File("registry"));

  for (const Call& call : calls) {
    SCOPED_TRACE(call.name + " " + std::to_string(call.nth) + ": " + call.line.substr(0, 200));
    const int result = RunWithFailing(call);
    EXPECT_THAT(ReadFile(Notes()), HasSubstr("(INJECTED)"));
    if (result == 0) ExpectTruth(call, from_after, to_after);
    if (result == 1 && Scenario() == "restore") ExpectNothingLost();
    EXPECT_TRUE(result == 0 || IsTraced(call)) << Log();
    EXPECT_TRUE(result == 0 || result == 1) << result;
    EXPECT_EQ(ContentsOf(dir_.File("outside")), outside);
    EXPECT_EQ(ReadFile(dir_.File("registry")), registry);
    EXPECT_TRUE(Scenario() != "copy" || ContentsOf(dir_.File("from")) == from_);
    EXPECT_EQ(ReadFile(dir_.File("to/kept.dat")), "kept");
  }
}

class DirectoryFaultsOnce : public DirectoryFaults {};

TEST_P(DirectoryFaultsOnce, FileOfSizeZeroIsReadBlockByBlock) {
  EXPECT_EQ(RunUnderStrace({"-e", "inject=copy_file_range:retval=0"}), 0);
  Tree expected = from_;
  expected["kept.dat"] = "kept";
  EXPECT_EQ(ContentsOf(dir_.File("to")), expected);
}

// The limit is within a block, so the first write of the block is short. The write of the rest fails with the error.
TEST_P(DirectoryFaultsOnce, ErrorOfAShortWriteIsTraced) {
  EXPECT_EQ(RunUnderStrace({"-e", "inject=copy_file_range:error=EXDEV", "prlimit", "--fsize=20000"}), 1);
  EXPECT_THAT(Log(), HasSubstr(std::string("## ERROR: Could not copy file. ") + std::strerror(EFBIG)));
  EXPECT_EQ(ReadFile(dir_.File("to/a.dat")), std::string(20000, 'a'));
}

INSTANTIATE_TEST_SUITE_P(Scenario, DirectoryFaultsOnce, testing::Values("copy"));

class RemovalWithoutProc : public DirectoryFaults {};

// Without /proc the C library cannot change a mode without following links.
TEST_P(RemovalWithoutProc, SuccessHasNoTraceOfAFailure) {
  EXPECT_EQ(RunUnderStrace({"-e", "inject=chmod:error=ENOENT"}), 0);
  EXPECT_THAT(ReadFile(Notes()), HasSubstr("(INJECTED)"));
  EXPECT_THAT(ReadFile(Notes()), HasSubstr("fchmod("));
  EXPECT_THAT(Log(), testing::Not(HasSubstr("ERROR")));
  EXPECT_FALSE(Exists(dir_.File("from")));
}

TEST_P(RemovalWithoutProc, FailureIsTraced) {
  EXPECT_EQ(RunUnderStrace({"-e", "inject=chmod:error=ENOENT", "-e", "inject=fchmod:error=EPERM"}), 0);
  EXPECT_THAT(Log(), HasSubstr("ERROR cannot change mode of file \"" + dir_.File("from/a.dat") +
                               "\": Operation not permitted"));
}

INSTANTIATE_TEST_SUITE_P(Scenario, RemovalWithoutProc, testing::Values("remove"));

INSTANTIATE_TEST_SUITE_P(Scenarios, DirectoryFaults, testing::Values("copy", "copy by blocks", "remove", "restore"),
                         [](const testing::TestParamInfo<const char*>& scenario) {
                           std::string name = scenario.param;
                           std::erase(name, ' ');
                           return name;
                         });

}  // namespace
}  // namespace qx::test
