// Makes every system call of an edit fail once, and kills the edit at each of them.
//
// strace records the calls of one edit that concern its directory. Then the edit runs again for each of these calls:
// once the call fails, once it kills the edit. In every run the file is either the old one or the new one, and whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

using testing::HasSubstr;

struct Scenario {
  const char* name;
  const char* file;
  const char* before;
  const char* after;
  std::vector<std::string> command;  // DIR is replaced by the directory
};

const Scenario kScenarios[] = {
    {"Registry",
     "registry",
     "[HKEY_USERS]\na=d=1\n\n\n",
     "[HKEY_USERS]\na=d=2\n\n\n",
     {"registry", "set", "HKEY_USERS", "a", "2", "--directory", "DIR", "--apply"}},
    {"IniFile",
     "a.ini",
     "[S]\nk = 1 ; note",
     "[S]\nk = 2 ; note\n",
     {"ini", "set", "DIR/a.ini", "S", "k", "2", "--apply"}},
};

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

// A call of the recorded run: the nth of its name.
struct Call {
  std::string name;
  int nth;
};

const char* ErrorOf(const std::string& call) {
  static const std::map<std::string, const char*> kErrors = {
      {"openat", "EACCES"}, {"write", "ENOSPC"}, {"fchmod", "EPERM"}, {"fchown", "EPERM"}, {"renameat2", "EROFS"}};
  const auto found = kErrors.find(call);
  return found != kErrors.end() ? found->second : "EIO";
}

// Returns the exit status of a command, or minus the signal that ended it. Its output goes to the file `printed`.
int Execute(const std::vector<std::string>& arguments, const std::string& printed) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const bool is_redirected = std::freopen(printed.c_str(), "w", stdout) != nullptr;
    if (is_redirected && dup2(STDOUT_FILENO, STDERR_FILENO) >= 0) execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class SettingsFaults : public testing::TestWithParam<Scenario> {
 protected:
  std::string Path() const { return dir_.File(GetParam().file); }

  // Runs the edit under strace with more options, from the same initial files.
  int RunEdit(const std::vector<std::string>& options) const {
    std::filesystem::remove_all(dir_.Path());
    std::filesystem::create_directory(dir_.Path());
    WriteFile(Path(), GetParam().before);
    return RunAgain(options);
  }
  int RunAgain(const std::vector<std::string>& options) const {
    std::vector<std::string> command = {"strace", "-y", "-s", "4096", "-o", own_.File("notes")};
    command.insert(command.end(), options.begin(), options.end());
    command.emplace_back(QX_QXCTL);
    for (std::string word : GetParam().command) {
      if (word.starts_with("DIR")) word.replace(0, 3, dir_.Path());
      command.push_back(word);
    }
    return Execute(command, own_.File("printed"));
  }

  std::vector<Call> NotedCalls() const {
    std::map<std::string, int> counts;
    std::vector<Call> calls;
    std::istringstream notes(ReadFile(own_.File("notes")));
    for (std::string line; std::getline(notes, line);) {
      const std::string name = line.substr(0, line.find('('));
      const int nth = ++counts[name];
      const bool is_of_the_edit = line.find(dir_.Path()) != std::string::npos && name != "execve";
      if (is_of_the_edit) calls.push_back({name, nth});
    }
    return calls;
  }

  static std::string Injection(const Call& call, const std::string& what) {
    return "inject=" + call.name + ":" + what + ":when=" + std::to_string(call.nth);
  }

  bool HasFile(const std::string& ending) const {
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      if (entry.path().string().ends_with(ending)) return true;
    }
    return false;
  }

  // A temporary file stays if it cannot be removed. If it cannot be locked, it stays and is empty, because it may
  // belong to another process.
  bool MayLeaveCopy(const Call& call) const {
    const bool is_before_the_lock = call.name == "flock" || call.name == "newfstatat" || call.name == "fstat";
    return call.name == "unlinkat" || (is_before_the_lock && ReadFile(Path() + ".edit").empty());
  }

  void ExpectOldOrNew() const {
    const std::string bytes = ReadFile(Path());
    EXPECT_TRUE(bytes == GetParam().before || bytes == GetParam().after) << bytes;
  }

  TempDir dir_;
  TempDir own_;
};

}  // namespace

TEST_P(SettingsFaults, FailedCallLeavesTheOldOrTheNewFileAndNoOtherFile) {
  ASSERT_EQ(RunEdit({}), 0) << ReadFile(own_.File("printed"));
  ASSERT_EQ(ReadFile(Path()), GetParam().after);
  const std::vector<Call> calls = NotedCalls();
  ASSERT_GT(calls.size(), 10U) << "strace has to be allowed to watch";
  for (const Call& call : calls) {
    const std::string what = call.name + " " + std::to_string(call.nth);
    const int code = RunEdit({"-e", Injection(call, std::string("error=") + ErrorOf(call.name))});
    ExpectOldOrNew();
    const bool is_new = ReadFile(Path()) == GetParam().after;
    EXPECT_TRUE(is_new || code != 0) << what << ": no message says that nothing was changed";
    EXPECT_TRUE(!HasFile(".edit") || MayLeaveCopy(call)) << what;
    EXPECT_FALSE(HasFile(".bak") && !is_new) << what;
    EXPECT_GE(code, 0) << what;
  }
}

TEST_P(SettingsFaults, KilledEditLeavesTheOldOrTheNewFileAndTheNextOneCleansUp) {
  ASSERT_EQ(RunEdit({}), 0);
  for (const Call& call : NotedCalls()) {
    (void)RunEdit({"-e", Injection(call, "signal=KILL")});
    ExpectOldOrNew();
    EXPECT_EQ(RunAgain({}), 0) << ReadFile(own_.File("printed"));
    EXPECT_EQ(ReadFile(Path()), GetParam().after);
    EXPECT_FALSE(HasFile(".edit")) << call.name << " " << call.nth;
  }
}

TEST_P(SettingsFaults, MissingWritePermissionIsExplained) {
  ASSERT_EQ(RunEdit({}), 0);
  for (const Call& call : NotedCalls()) {
    if (call.name != "openat") continue;
    ASSERT_EQ(RunEdit({"-e", Injection(call, "error=EACCES")}), 6);
    EXPECT_THAT(ReadFile(own_.File("printed")), HasSubstr("as a user who may write"));
    return;
  }
  FAIL() << "no file was opened";
}

INSTANTIATE_TEST_SUITE_P(Edits, SettingsFaults, testing::ValuesIn(kScenarios),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace qx::test
