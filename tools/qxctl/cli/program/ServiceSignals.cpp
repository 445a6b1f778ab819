#include "tools/qxctl/cli/program/ServiceSignals.h"

#include <sys/signalfd.h>

#include <csignal>
#include <utility>

namespace qx::ctl {

ServiceSignals::ServiceSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return;
  file_ = file::Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!file_.IsOpen()) (void)pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);  // then they end the process
}

void ServiceSignals::Take() {
  signalfd_siginfo info = {};
  while (file_.IsOpen() && file::ReadSome(file_.Number(), &info, sizeof info).bytes == sizeof info) {
    const bool is_reload = info.ssi_signo == static_cast<std::uint32_t>(SIGHUP);
    (is_reload ? is_reload_ : is_stop_) = true;
  }
}

bool ServiceSignals::TakeReload() { return std::exchange(is_reload_, false); }

}  // namespace qx::ctl
