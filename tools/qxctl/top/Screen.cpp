#include "tools/qxctl/top/Screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "base/File.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/WriteAll.h"

namespace qx::ctl {

namespace {

// kEnter selects the second buffer, hides the cursor and turns line wrap off; kLeave does the reverse.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view kLeave = "\033[?7h\033[?25h\033[?1049l";
constexpr std::string_view kTop = "\033[H";
constexpr std::string_view kEndOfLine = "\033[K";
constexpr std::string_view kEndOfScreen = "\033[J";
constexpr int kLeaveMilliseconds = 500;

constexpr int kScreenSignals[] = {SIGWINCH, SIGCONT, SIGTSTP};
// The signals that end a wait. They are blocked between the check of the flags that they set and the wait.
constexpr int kWakingSignals[] = {SIGWINCH, SIGCONT, SIGTSTP, SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_is_resized = 0;
volatile std::sig_atomic_t g_is_continued = 0;
volatile std::sig_atomic_t g_is_stopped = 0;

extern "C" void HandleScreenSignal(int signal) {
  if (signal == SIGWINCH) g_is_resized = 1;
  if (signal == SIGCONT) g_is_continued = 1;
  if (signal == SIGTSTP) g_is_stopped = 1;
}

// A signal that the parent ignores stays ignored: a shell without job control does that with SIGTSTP.
void SetHandlers(void (*handler)(int)) {
  for (const int signal : kScreenSignals) {
    struct sigaction action = {};
    const bool is_ignored = sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
    if (is_ignored) continue;
    action = {};
    action.sa_handler = handler;
    (void)sigemptyset(&action.sa_mask);
    (void)sigaction(signal, &action, nullptr);  // fails only for signals that cannot be caught
  }
}

// Does not wait for long: a terminal whose line is disconnected accepts nothing, and must not block the process.
void WriteIfPossible(std::string_view bytes) {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  const bool is_ready = poll(&output, 1, kLeaveMilliseconds) > 0 && (output.revents & POLLOUT) != 0;
  if (is_ready) (void)file::WriteOnce(STDOUT_FILENO, bytes);  // the terminal may be gone
}

}  // namespace

bool Screen::IsPossible() {
  const char* const type = std::getenv("TERM");
  const bool is_simple = type == nullptr || *type == '\0' || std::string_view(type) == "dumb";
  return isatty(STDOUT_FILENO) == 1 && !is_simple;
}

Screen::Screen() {
  termios mode = {};
  if (isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &mode) == 0) before_ = mode;
  has_keys_ = before_.has_value();
  g_is_resized = 0;
  g_is_continued = 0;
  g_is_stopped = 0;
  SetHandlers(HandleScreenSignal);
  Enter();
}

Screen::~Screen() {
  Leave();
  SetHandlers(SIG_DFL);
}

// ^C and ^Z still send their signals. ^\ and ^S have no effect: ^\ would end the process before it can restore the
// terminal, and ^S would stop the output.
void Screen::Enter() {
  is_entered_ = true;
  if (before_) {
    termios mode = *before_;
    mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    mode.c_iflag &= ~static_cast<tcflag_t>(IXON);
    mode.c_cc[VQUIT] = _POSIX_VDISABLE;
    mode.c_cc[VMIN] = 1;
    mode.c_cc[VTIME] = 0;
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &mode);  // if it fails, keys are echoed, and need a line end
  }
  WriteIfPossible(kEnter);
}

void Screen::Leave() {
  if (!is_entered_) return;
  is_entered_ = false;
  WriteIfPossible(kLeave);
  if (before_) (void)tcsetattr(STDIN_FILENO, TCSANOW, &*before_);  // a terminal that is gone needs no mode
}

void Screen::Suspend() {
  Leave();
  g_is_stopped = 0;
  SetHandlers(SIG_DFL);
  (void)std::raise(SIGTSTP);  // the process stops here
  SetHandlers(HandleScreenSignal);
  Enter();
}

ScreenSize Screen::Size() {
  winsize size = {};
  const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
  return is_known ? ScreenSize{size.ws_col, size.ws_row} : ScreenSize();
}

// One write for the whole screen, so that it does not flicker. The last line has no line end, which would scroll.
Status Screen::Draw(const std::vector<std::string>& lines) {
  const std::size_t count = std::min(lines.size(), Size().lines);
  std::string frame(kTop);
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) frame += "\r\n";
    frame += lines[i];
    frame += kEndOfLine;
  }
  frame += kEndOfScreen;
  return WriteAll(STDOUT_FILENO, frame, "standard output");
}

Wake Screen::Wait(std::chrono::nanoseconds time, char& key) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const timespec limit{static_cast<time_t>(time.count() / kSecond), static_cast<long>(time.count() % kSecond)};
  sigset_t held;
  sigset_t before;
  (void)sigemptyset(&held);
  for (const int signal : kWakingSignals) (void)sigaddset(&held, signal);
  (void)pthread_sigmask(SIG_BLOCK, &held, &before);
  const bool is_awake = InterruptSignal() != 0 || g_is_resized != 0 || g_is_continued != 0 || g_is_stopped != 0;
  pollfd input{has_keys_ ? STDIN_FILENO : -1, POLLIN, 0};
  const int ready = is_awake ? 0 : ppoll(&input, 1, &limit, &before);
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (InterruptSignal() != 0) return Wake::kSignal;
  const bool has_stopped = g_is_stopped != 0;
  const bool has_continued = g_is_continued != 0;
  const bool is_to_redraw = has_stopped || has_continued || g_is_resized != 0;
  g_is_resized = 0;
  g_is_continued = 0;
  if (has_stopped) Suspend();
  if (has_continued) Enter();  // another program may have used the terminal meanwhile
  if (is_to_redraw) return Wake::kRedraw;
  return ready > 0 && ReadKey(key) ? Wake::kKey : Wake::kTime;
}

// A terminal that is gone sends no keys any more.
bool Screen::ReadKey(char& key) {
  const file::Progress progress = file::ReadSome(STDIN_FILENO, &key, 1);
  has_keys_ = !progress.Failed() && progress.bytes == 1;
  return has_keys_;
}

}  // namespace qx::ctl
