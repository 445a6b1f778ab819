#include "tests/qxctl/RunQxctl.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "reportfile/ReportFileBase.h"

namespace qx::test {

namespace {

constexpr int kStartFailed = 126;
const char kRegistryDirectory[] = "/etc/brollan";

struct Pipe {
  int read_end;
  int write_end;
};

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  return {ends[0], ends[1]};
}

// Makes a terminal in place of a pipe. Its read end returns the written bytes, and then an error, which is the end.
Pipe MakeTerminal() {
  termios raw = {};
  cfmakeraw(&raw);
  int master = -1;
  int slave = -1;
  if (openpty(&master, &slave, nullptr, &raw, nullptr) != 0) throw std::runtime_error("no terminal");
  (void)fcntl(master, F_SETFD, FD_CLOEXEC);
  (void)fcntl(slave, F_SETFD, FD_CLOEXEC);
  return {master, slave};
}

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  _exit(kStartFailed);
}

// Hides this machine's registry from the child: with it, the module would use another report directory.
void HideRegistry() {
  if (access(kRegistryDirectory, F_OK) != 0) return;
  if (unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) {
    Fail("this machine has /etc/brollan; allow unprivileged user namespaces, so that the test can hide it: unshare");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Fail("mount /");
  if (mount("tmpfs", kRegistryDirectory, "tmpfs", 0, nullptr) != 0) Fail("mount over /etc/brollan");
}

void SetUp(const Start& start) {
  HideRegistry();
  for (const auto& [name, value] : start.environment) setenv(name.c_str(), value.c_str(), 1);
  if (chdir(start.directory.c_str()) != 0) Fail("chdir");
  (void)signal(SIGPIPE, SIG_DFL);
  if (start.close_out) close(STDOUT_FILENO);
  if (start.out_file.empty()) return;
  const int file = open(start.out_file.c_str(), O_WRONLY | O_CREAT, 0600);
  if (file < 0 || dup2(file, STDOUT_FILENO) < 0) Fail("open output");
}

[[noreturn]] void Exec(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  Fail("exec");
}

// Reads some bytes. False at the end.
bool ReadInto(int descriptor, std::string& text) {
  char buffer[65536];
  const ssize_t count = read(descriptor, buffer, sizeof buffer);
  if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

void CloseIfOpen(int& descriptor) {
  if (descriptor >= 0) close(descriptor);
  descriptor = -1;
}

// Writes the bytes that the pipe takes. Closes it when all is written or the reader is gone.
void Feed(int& descriptor, std::string& input) {
  const ssize_t count = input.empty() ? -1 : write(descriptor, input.data(), input.size());
  if (count > 0) input.erase(0, static_cast<std::size_t>(count));
  if (count < 0 || input.empty()) CloseIfOpen(descriptor);
}

// Waits until `condition` is true; false after 20 seconds.
template <typename Condition>
bool IsSoon(Condition condition, int ms_max = 20'000) {
  for (int i = 0; i < ms_max; ++i) {
    if (condition()) return true;
    usleep(1000);
  }
  return false;
}

// The tested file: the built one, unless the environment names another one, such as an installed one.
std::string Chosen(const char* variable, const char* built) {
  const char* named = std::getenv(variable);
  return named != nullptr ? named : built;
}

}  // namespace

Child::Child(const std::vector<std::string>& command, const Start& start) : input_(start.input) {
  (void)signal(SIGPIPE, SIG_IGN);  // A child may end before it has read its input.
  const Pipe in = MakePipe();
  const Pipe out = start.out_is_terminal ? MakeTerminal() : MakePipe();
  const Pipe err = start.err_is_terminal ? MakeTerminal() : MakePipe();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("no process");
  if (pid_ == 0) {
    dup2(in.read_end, STDIN_FILENO);
    dup2(out.write_end, STDOUT_FILENO);
    dup2(err.write_end, STDERR_FILENO);
    SetUp(start);
    Exec(command);
  }
  close(in.read_end);
  close(out.write_end);
  close(err.write_end);
  in_ = in.write_end;
  out_ = out.read_end;
  err_ = err.read_end;
  (void)fcntl(in_, F_SETFL, O_NONBLOCK);
}

Child::~Child() {
  if (pid_ > 0) {
    Kill(SIGKILL);
    (void)Wait();
  }
}

std::string Child::ReadSome() {
  std::string text;
  (void)ReadInto(out_, text);
  return text;
}

void Child::Kill(int signal) const { (void)kill(pid_, signal); }

bool Child::WaitUntilItIsIn(long call, int ms_max) const {
  const std::string start = std::to_string(call) + " ";
  const std::string path = "/proc/" + std::to_string(pid_) + "/syscall";
  return IsSoon([&] { return ReadFile(path).starts_with(start); }, ms_max);
}

bool Child::WaitUntilItEnds() const {
  return IsSoon([&] {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
  });
}

Ran Child::Wait() {
  Ran ran;
  while (in_ >= 0 || out_ >= 0 || err_ >= 0) {
    pollfd waited[] = {{in_, POLLOUT, 0}, {out_, POLLIN, 0}, {err_, POLLIN, 0}};
    if (poll(waited, 3, -1) < 0) throw std::runtime_error("poll");
    if (waited[0].revents != 0) Feed(in_, input_);
    if (waited[1].revents != 0 && !ReadInto(out_, ran.out)) CloseIfOpen(out_);
    if (waited[2].revents != 0 && !ReadInto(err_, ran.err)) CloseIfOpen(err_);
  }
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) throw std::runtime_error("waitpid");
  pid_ = -1;
  ran.code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return ran;
}

std::string QxctlPath() { return Chosen("QX_TESTED_QXCTL", QX_QXCTL); }
std::string ModulePath() { return Chosen("QX_TESTED_MODULE", QX_MODULE_FILE); }
std::string FakeModulePath() { return QX_FAKE_MODULE; }

QxctlFixture::QxctlFixture() { std::filesystem::create_directory(dir_.File("Reports")); }

void QxctlFixture::MakeReport(const std::string& name, unsigned slots, const std::vector<std::string>& texts) const {
  CReportFileBase store;
  if (!store.Open(ReportPath(name).c_str(), slots)) throw std::runtime_error("cannot create " + name);
  for (const std::string& text : texts) {
    if (!store.writeLine(text.c_str())) throw std::runtime_error("cannot append to " + name);
  }
}

void QxctlFixture::Append(const std::string& name, const std::vector<std::string>& texts) const {
  MakeReport(name, 0, texts);  // an existing report keeps its ring size
}

Start QxctlFixture::StartHere() const {
  const char* const options = std::getenv("ASAN_OPTIONS");
  const std::string without_leaks = std::string(options != nullptr ? options : "") + ":detect_leaks=0";
  return {.directory = dir_.Path(), .environment = {{"QX_MODULE", ModulePath()}, {"ASAN_OPTIONS", without_leaks}}};
}

Ran QxctlFixture::Qxctl(const std::vector<std::string>& arguments, const std::string& input) const {
  Start start = StartHere();
  start.input = input;
  return Qxctl(arguments, start);
}

Ran QxctlFixture::Qxctl(const std::vector<std::string>& arguments, Start start) const {
  start.directory = dir_.Path();
  std::vector<std::string> command = {QxctlPath()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return Child(command, start).Wait();
}

}  // namespace qx::test
