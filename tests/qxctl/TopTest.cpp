// Tests qxctl top: on a terminal of its own, in a pipe, and its documents.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <regex.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Arguments = std::vector<std::string>;

const char kEnterScreen[] = "\033[?1049h\033[?25l\033[?7l";
const char kLeaveScreen[] = "\033[?7h\033[?25h\033[?1049l";
constexpr int kWaitMaxMs = 20'000;  // until a test gives up

// A process on a terminal of its own, like one that a person has started.
class TerminalRun {
 public:
  TerminalRun(const Arguments& command, const std::string& directory, winsize size = {24, 100, 0, 0},
              const char* type = "xterm") {
    pid_ = forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ < 0) throw std::runtime_error("no terminal");
    if (pid_ == 0) Exec(command, directory, type);
    char name[256];
    if (ptsname_r(master_, name, sizeof name) != 0) throw std::runtime_error("no name of the terminal");
    slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);  // keeps the modes readable after the process has ended
  }
  ~TerminalRun() {
    if (pid_ > 0) {
      (void)kill(pid_, SIGKILL);
      (void)waitpid(pid_, nullptr, 0);
    }
    close(slave_);
    CloseMaster();
  }
  TerminalRun(const TerminalRun&) = delete;
  TerminalRun& operator=(const TerminalRun&) = delete;

  void Type(const std::string& keys) const {
    EXPECT_EQ(write(master_, keys.data(), keys.size()), ssize_t(keys.size()));
  }
  void Kill(int signal) const { (void)kill(pid_, signal); }
  void Resize(unsigned short lines, unsigned short columns) const {
    const winsize size = {lines, columns, 0, 0};
    EXPECT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0);
  }
  void CloseMaster() {
    if (master_ >= 0) close(master_);
    master_ = -1;
  }

  // Reads until `text` has come. Returns everything after the previous call, up to the end of `text`.
  std::string ReadUntil(const std::string& text) {
    std::size_t at = unread_.find(text);
    for (; at == std::string::npos; at = unread_.find(text)) {
      if (ReadSome(unread_)) continue;
      ADD_FAILURE() << "\"" << text << "\" has not come, only: " << unread_;
      return std::exchange(unread_, {});
    }
    const std::string read = unread_.substr(0, at + text.size());
    unread_.erase(0, read.size());
    return read;
  }

  // Reads the rest and waits. Returns the exit code, or minus the signal.
  int Wait(std::string* rest = nullptr) {
    int status = 0;
    std::string read = std::exchange(unread_, {});
    for (int i = 0; i < kWaitMaxMs / 10 && waitpid(pid_, &status, WNOHANG) == 0; ++i) (void)ReadSome(read, 10);
    while (master_ >= 0 && ReadSome(read, 0)) continue;
    pid_ = -1;
    if (rest != nullptr) *rest = read;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

  // Which of the modes "icanon echo ixon" are on.
  std::string Modes() const {
    termios mode = {};
    EXPECT_EQ(tcgetattr(slave_, &mode), 0);
    std::string text;
    if ((mode.c_lflag & ICANON) != 0) text += "icanon ";
    if ((mode.c_lflag & ECHO) != 0) text += "echo ";
    if ((mode.c_lflag & ISIG) != 0) text += "isig ";
    if ((mode.c_iflag & IXON) != 0) text += "ixon ";
    return text + (mode.c_cc[VQUIT] == _POSIX_VDISABLE ? "" : "quit");
  }

 private:
  [[noreturn]] static void Exec(const Arguments& command, const std::string& directory, const char* type) {
    setenv("TERM", type, 1);
    setenv("TZ", "UTC", 1);
    setenv("LC_ALL", "C", 1);
    setenv("NO_COLOR", "1", 1);
    (void)signal(SIGPIPE, SIG_DFL);
    if (chdir(directory.c_str()) != 0) _exit(126);
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }

  // Reads some bytes. False at the end, and if nothing comes in time.
  bool ReadSome(std::string& text, int wait_ms = kWaitMaxMs) const {
    pollfd waited{master_, POLLIN, 0};
    if (poll(&waited, 1, wait_ms) <= 0) return false;
    char buffer[4096];
    const ssize_t count = read(master_, buffer, sizeof buffer);
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  }

  std::string unread_;
  int master_ = -1;
  int slave_ = -1;
  pid_t pid_ = -1;
};

const char kModesBefore[] = "icanon echo isig ixon quit";
const char kModesOnScreen[] = "isig ";

// Hides the time of day, the directory, and rates.
std::string WithoutTimes(std::string text, const std::string& directory) {
  for (const std::string& pattern :
       {std::string("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"), directory + "/Reports",
        std::string("\"(timeMs|recordsPerSecond)\":[0-9.e+-]+"), std::string("\"ageSeconds\":36[0-9]{2}")}) {
    regex_t compiled;
    EXPECT_EQ(regcomp(&compiled, pattern.c_str(), REG_EXTENDED), 0);
    regmatch_t match = {};
    while (regexec(&compiled, text.c_str(), 1, &match, 0) == 0) {
      text.replace(static_cast<std::size_t>(match.rm_so), static_cast<std::size_t>(match.rm_eo - match.rm_so), "N");
    }
    regfree(&compiled);
  }
  return text;
}

class QxctlTop : public testing::Test, protected QxctlFixture {
 protected:
  // Makes "load" with numbers, "jobs" with texts, and "empty"; all are an hour old.
  void MakeReports() const {
    MakeReport("load", 3, {"2026-01-31 10:00 cpu=1%", "cpu=5%", "cpu=2%", "2026-01-31 10:03:00 cpu=9% load 0.5"});
    MakeReport("jobs", 9, {"2026-01-31 09:59:00 backup \033[2J done"});
    MakeReport("empty", 5, {});
    for (const char* const name : {"load", "jobs"}) SetAge(name, 3600);
  }
  void SetAge(const std::string& name, time_t seconds) const {
    const timespec time = {std::time(nullptr) - seconds, 0};
    const timespec times[] = {time, time};
    EXPECT_EQ(utimensat(AT_FDCWD, (ReportPath(name) + ".ind").c_str(), times, 0), 0);
  }

  Start StartTop() const {
    Start start = StartHere();
    start.environment["TZ"] = "UTC";
    start.environment["LC_ALL"] = "C";
    return start;
  }
  std::string Top(Arguments arguments) const {
    arguments.insert(arguments.begin(), "top");
    const Ran ran = Qxctl(arguments, StartTop());
    EXPECT_EQ(ran.code, 0) << ran.err;
    EXPECT_EQ(ran.err, "");
    return Hidden(ran.out);
  }
  std::string Hidden(const std::string& text) const { return WithoutTimes(text, Dir().Path()); }

  static Arguments Command(Arguments arguments = {}) {
    arguments.insert(arguments.begin(), {QxctlPath(), "top"});
    return arguments;
  }

  std::string Faults(const std::string& out) const {
    const std::string source = QX_SOURCE_DIR;
    const Arguments command = {"/usr/bin/python3", source + "/tests/docs/check_documents.py", source + "/docs/schemas"};
    const Ran ran = Child(command, {.directory = source, .input = "$ qxctl top --json\n" + out}).Wait();
    return ran.out + ran.err;
  }
};

const char kTable[] = R"(3 reports in N, N
report  records  rate  newest  last values  value
empty         0     -       -               empty
jobs     1 of 9     -  60 min               backup \x1B[2J done
load     3 of 3     -  60 min          -_#  cpu 9%
)";

// "0 reports in /srv/reports, 2026-01-31 10:20:30\n..." => that time, as if it were UTC
time_t TimeInHead(const std::string& table) {
  tm time = {};
  const std::size_t at = table.find(", ");
  const char* const text = table.c_str() + (at == std::string::npos ? 0 : at);
  EXPECT_NE(strptime(text, ", %Y-%m-%d %H:%M:%S", &time), nullptr) << table;
  return timegm(&time);
}

// The bytes that show some lines on a screen. The terminal writes a CR before each LF.
std::string Frame(const std::string& text) {
  std::string frame = "\033[H";
  std::istringstream stream(text);
  std::size_t count = 0;
  for (std::string line; std::getline(stream, line); ++count) {
    frame += (count > 0 ? "\r\r\n" : "") + line + (count == 0 ? "; q ends" : "") + "\033[K";
  }
  return frame + "\033[J";
}

}  // namespace

// --- in a pipe

TEST_F(QxctlTop, PipeGetsOneTableInEachRound) {
  MakeReports();
  EXPECT_EQ(Top({"--count", "1"}), kTable);
  const std::string twice = Top({"--count", "2", "--interval", "0.1"});
  EXPECT_THAT(twice, StartsWith(std::string(kTable) + "\n3 reports in N, 0, N\n"));
  EXPECT_THAT(twice, HasSubstr("\nload     3 of 3     0  60 min"));
}

TEST_F(QxctlTop, Utf8LocaleGetsBlocks) {
  MakeReports();
  Start start = StartTop();
  start.environment["LC_ALL"] = "C.UTF-8";
  const Ran ran = Qxctl({"top", "--count", "1"}, start);
  EXPECT_THAT(Hidden(ran.out), AllOf(StartsWith("3 reports in N, N\n"), EndsWith("  ▄▁█  cpu 9%\n")));
}

TEST_F(QxctlTop, FieldOptionChoosesTheValue) {
  MakeReports();
  const std::string out = Top({"--count", "1", "--field", "load"});
  EXPECT_THAT(out, HasSubstr("\njobs     1 of 9     -  60 min               -\n"
                             "load     3 of 3     -  60 min            -  load 0.5\n"));
}

TEST_F(QxctlTop, DamagedReportShowsItsState) {
  MakeReports();
  std::string index = ReadFile(ReportPath("load") + ".ind");
  index[20] = 7;  // the oldest slot of a ring of 3
  WriteFile(ReportPath("load") + ".ind", index);
  EXPECT_THAT(Top({"--count", "1"}), EndsWith("  damaged\n"));
}

TEST_F(QxctlTop, UtcOptionShowsTheTimeInUtc) {
  Start start = StartTop();
  start.environment["TZ"] = "EAST-5";
  const std::string utc = Qxctl({"top", "--count", "1", "--utc"}, start).out;
  const std::string local = Qxctl({"top", "--count", "1"}, start).out;
  EXPECT_NEAR(double(TimeInHead(local) - TimeInHead(utc)), 5 * 3600, 600);
  EXPECT_NEAR(double(TimeInHead(utc)), double(std::time(nullptr)), 600);
}

TEST_F(QxctlTop, DirectoryThatIsMissingIsNotFound) {
  const Ran ran = Qxctl({"top", "--reports", "nowhere"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.err, "qxctl: there is no directory nowhere\n");
  EXPECT_EQ(Qxctl({"top", "--count", "1"}).out.substr(0, 13), "0 reports in ");
}

TEST_F(QxctlTop, FullDeviceAndAReaderThatEndsEndIt) {
  MakeReports();
  Start full = StartTop();
  full.out_file = "/dev/full";
  EXPECT_EQ(Qxctl({"top"}, full).code, 6);
  const Ran ran =
      Child({"/bin/sh", "-c", "(\"$0\" top --interval 0.1; echo $? >&2) | head -1", QxctlPath()}, StartTop()).Wait();
  EXPECT_THAT(Hidden(ran.out), StartsWith("3 reports in N"));
  EXPECT_EQ(ran.err, "141\n");
}

TEST_F(QxctlTop, SignalEndsThePipeWithThatSignal) {
  MakeReports();
  Child child({QxctlPath(), "top"}, StartTop());
  (void)child.ReadSome();
  child.Kill(SIGTERM);
  EXPECT_EQ(child.Wait().code, -SIGTERM);
}

// --- documents

TEST_F(QxctlTop, JsonHasOneDocumentInEachRound) {
  MakeReports();
  const std::string out = Top({"--count", "1", "--json"});
  EXPECT_EQ(out, R"({"reportDirectory":"N","round":1,N,"reports":[)"
                 R"({"report":"empty","state":"empty","trouble":"","records":0,"slots":null,"newRecords":0,)"
                 R"("recordsPerSecond":null,"ageSeconds":null,"field":null,"value":"","number":null,"numbers":[]},)"
                 R"({"report":"jobs","state":"sound","trouble":"","records":1,"slots":9,"newRecords":0,)"
                 R"("recordsPerSecond":null,N,"field":null,"value":"backup \u001b[2J done","number":null,)"
                 R"("numbers":[]},)"
                 R"({"report":"load","state":"sound","trouble":"","records":3,"slots":3,"newRecords":0,)"
                 R"("recordsPerSecond":null,N,"field":"cpu","value":"9%","number":9.0,)"
                 R"("numbers":[5.0,2.0,9.0]}],"allReports":true})"
                 "\n");
  EXPECT_EQ(Faults(Qxctl({"top", "--count", "2", "--interval", "0.1", "--json"}).out), "");
  EXPECT_NE(Faults(R"({"round":1})"), "");
}

TEST_F(QxctlTop, NewRecordsAndARestartAreCounted) {
  MakeReport("load", 9, {"cpu=1", "cpu=2", "cpu=3"});
  Child child({QxctlPath(), "top", "--json", "--interval", "0.1"}, StartTop());
  std::string out = child.ReadSome();
  Append("load", {"cpu=4", "cpu=5"});
  while (out.find("\"number\":5.0") == std::string::npos) out += child.ReadSome();
  (void)std::remove((ReportPath("load") + ".ind").c_str());
  MakeReport("load", 9, {"cpu=7"});
  while (out.find("\"numbers\":[7.0]") == std::string::npos) out += child.ReadSome();
  child.Kill(SIGTERM);
  std::istringstream lines(out + child.Wait().out);
  std::uint64_t new_records = 0;
  json last;
  for (std::string line; std::getline(lines, line);) {
    last = json::parse(line)["reports"][0];
    new_records += last["newRecords"].get<std::uint64_t>();
  }
  EXPECT_EQ(new_records, 3U);
  EXPECT_EQ(last["numbers"], json::parse("[7.0]"));
  EXPECT_GT(last["recordsPerSecond"].get<double>(), 0);
}

// --- on a terminal

TEST_F(QxctlTop, TerminalGetsAScreenAndIsRestored) {
  MakeReports();
  TerminalRun run(Command({"--count", "1"}), Dir().Path());
  std::string out;
  EXPECT_EQ(run.Wait(&out), 0);
  EXPECT_EQ(Hidden(out), kEnterScreen + Frame(kTable) + kLeaveScreen);
  EXPECT_EQ(run.Modes(), kModesBefore);
}

TEST_F(QxctlTop, KeyQEndsItWithCodeZero) {
  MakeReports();
  for (const char* const key : {"q", "Q", "xyq"}) {
    TerminalRun run(Command(), Dir().Path());
    (void)run.ReadUntil("\033[J");
    EXPECT_EQ(run.Modes(), kModesOnScreen);
    run.Type(key);
    std::string rest;
    EXPECT_EQ(run.Wait(&rest), 0);
    EXPECT_EQ(rest, kLeaveScreen);
    EXPECT_EQ(run.Modes(), kModesBefore);
  }
}

TEST_F(QxctlTop, EverySignalRestoresTheTerminal) {
  MakeReports();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    TerminalRun run(Command(), Dir().Path());
    (void)run.ReadUntil("\033[J");
    run.Kill(signal);
    std::string rest;
    EXPECT_EQ(run.Wait(&rest), -signal);
    EXPECT_EQ(rest, kLeaveScreen);
    EXPECT_EQ(run.Modes(), kModesBefore);
  }
}

TEST_F(QxctlTop, ControlCEndsItAndControlBackslashDoesNot) {
  TerminalRun run(Command(), Dir().Path());
  (void)run.ReadUntil("\033[J");
  run.Type("\x1C\x13\x03");  // ^\ ^S ^C
  EXPECT_EQ(run.Wait(), -SIGINT);
  EXPECT_EQ(run.Modes(), kModesBefore);
}

TEST_F(QxctlTop, ResizedTerminalIsDrawnAtOnceAndInPages) {
  MakeReports();
  TerminalRun run(Command({"--interval", "1000"}), Dir().Path());
  (void)run.ReadUntil("\033[J");
  run.Resize(4, 40);
  EXPECT_EQ(Hidden(run.ReadUntil("\033[J")),
            "\033[H3 reports in N, N; q ends\033[K\r\r\n"
            "report  records  rate  newest  last values  value\033[K\r\r\n"
            "empty         0     -       -               empty\033[K\r\r\n"
            "reports 1 to 1 of 3; the space key shows the next ones\033[K\033[J");
  run.Type(" ");
  EXPECT_THAT(run.ReadUntil("\033[J"), HasSubstr("value\033[K\r\r\njobs     1 of 9     -  60 min               "
                                                 "backup \\x1B[2J done\033[K\r\r\nreports 2 to 2 of 3;"));
  run.Type("  ");
  EXPECT_THAT(run.ReadUntil("\033[J"), HasSubstr("reports 3 to 3 of 3;"));
  EXPECT_THAT(run.ReadUntil("\033[J"), HasSubstr("reports 1 to 1 of 3;"));
  run.Resize(24, 80);
  EXPECT_EQ(Hidden(run.ReadUntil("\033[J")), Frame(kTable));
}

TEST_F(QxctlTop, ControlZRestoresTheTerminalUntilItContinues) {
  TerminalRun run({"bash", "-c", "set -m; \"$0\" top --interval 1000; echo suspended; fg >/dev/null", QxctlPath()},
                  Dir().Path());
  (void)run.ReadUntil("\033[J");
  run.Type("\x1A");
  EXPECT_THAT(run.ReadUntil("suspended"), StartsWith(kLeaveScreen));
  EXPECT_THAT(run.ReadUntil("\033[J"), HasSubstr(std::string(kEnterScreen) + "\033[H0 reports in "));
  EXPECT_EQ(run.Modes(), kModesOnScreen);
  run.Type("q");
  EXPECT_EQ(run.Wait(), 0);
  EXPECT_EQ(run.Modes(), kModesBefore);
}

TEST_F(QxctlTop, TerminalThatIsGoneEndsIt) {
  MakeReports();
  TerminalRun run(Command({"--interval", "0.1"}), Dir().Path());
  (void)run.ReadUntil("\033[J");
  run.CloseMaster();
  EXPECT_EQ(run.Wait(), -SIGHUP);
}

// Standard output is another terminal than the one with the keys. So the write fails before a SIGHUP comes.
TEST_F(QxctlTop, FailedWriteRestoresTheTerminal) {
  int master = -1;
  int slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  char name[256];
  ASSERT_EQ(ptsname_r(master, name, sizeof name), 0);
  for (const int end : {master, slave}) ASSERT_EQ(fcntl(end, F_SETFD, FD_CLOEXEC), 0);
  TerminalRun run({"/bin/sh", "-c", "exec \"$0\" top --interval 0.1 >\"$1\"", QxctlPath(), name}, Dir().Path());
  std::string drawn;
  char buffer[4096];
  while (drawn.find("\033[J") == std::string::npos) {
    const ssize_t count = read(master, buffer, sizeof buffer);
    ASSERT_GT(count, 0);
    drawn.append(buffer, static_cast<std::size_t>(count));
  }
  EXPECT_EQ(run.Modes(), kModesOnScreen);
  close(slave);
  close(master);
  std::string rest;
  EXPECT_EQ(run.Wait(&rest), 6);
  EXPECT_EQ(rest, "qxctl: cannot write standard output: Input/output error\r\n");
  EXPECT_EQ(run.Modes(), kModesBefore);
}

TEST_F(QxctlTop, SimpleTerminalAndRedirectedOutputGetPlainTables) {
  MakeReports();
  TerminalRun simple(Command({"--count", "1"}), Dir().Path(), {24, 100, 0, 0}, "dumb");
  std::string out;
  EXPECT_EQ(simple.Wait(&out), 0);
  EXPECT_THAT(out, Not(HasSubstr("\033")));
  TerminalRun piped({"/bin/sh", "-c", "\"$0\" top --interval 0.1 | head -1", QxctlPath()}, Dir().Path());
  std::string line;
  EXPECT_EQ(piped.Wait(&line), 0);
  EXPECT_THAT(Hidden(line), AllOf(StartsWith("3 reports in N, N\r\n"), Not(HasSubstr("\033"))));
  EXPECT_EQ(piped.Modes(), kModesBefore);
}

}  // namespace qx::test
