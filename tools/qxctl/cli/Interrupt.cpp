#include "tools/qxctl/cli/Interrupt.h"

#include <csignal>

namespace qx::ctl {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_signal = 0;

extern "C" void RememberSignal(int signal) {
  if (g_signal == 0) g_signal = signal;
}

// No SA_RESTART: a write that waits for a slow reader must return, or ^C would do nothing.
void SetHandler(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  (void)sigemptyset(&action.sa_mask);
  (void)sigaction(signal, &action, nullptr);  // fails only for signals that cannot be caught
}

// What a parent ignores stays ignored: nohup relies on it.
bool IsIgnored(int signal) {
  struct sigaction action = {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

int InterruptSignal() { return g_signal; }

InterruptGuard::InterruptGuard() {
  for (const int signal : kSignals) {
    if (!IsIgnored(signal)) SetHandler(signal, RememberSignal);
  }
}

InterruptGuard::~InterruptGuard() {
  for (const int signal : kSignals) {
    if (!IsIgnored(signal)) SetHandler(signal, SIG_DFL);
  }
}

void DieOfInterrupt() {
  if (g_signal == 0) return;
  SetHandler(g_signal, SIG_DFL);
  (void)std::raise(g_signal);
}

}  // namespace qx::ctl
