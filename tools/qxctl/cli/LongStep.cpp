#include "tools/qxctl/cli/LongStep.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "base/File.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFirst{1000};
constexpr std::chrono::milliseconds kNext{200};
constexpr std::size_t kStatusBytesMax = 4096;
constexpr char kWiped[] = "\r\033[K";

// The bytes that this process has read and written so far.
struct Moved {
  std::uint64_t read = 0;
  std::uint64_t written = 0;
};

// The number in a line "NAME: 123"; 0 if there is no such line.
std::uint64_t NumberAfter(const std::string& text, const char* name) {
  const std::size_t at = text.find(name);
  return at == std::string::npos ? 0
                                 : std::strtoull(text.c_str() + at + std::char_traits<char>::length(name), nullptr, 10);
}

Moved MovedSoFar() {
  std::string text;
  const file::Descriptor status = file::Open("/proc/self/io", O_RDONLY);
  if (!status.IsOpen() || file::ReadWhole(status.Number(), text, kStatusBytesMax) != 0) return {};
  return {NumberAfter(text, "rchar: "), NumberAfter(text, "wchar: ")};
}

// "12.3"
std::string Megabytes(std::uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / 1e6);
  return text;
}

// "12.3 MB", "12.3 of 40.0 MB". If a step reads some bytes twice, it can exceed the total, which is then left out.
std::string ReadText(std::uint64_t read, std::uint64_t total) {
  constexpr std::uint64_t kOtherReads = 65536;  // of this progress itself
  const bool has_total = total > 0 && read <= total + kOtherReads;
  return Megabytes(read) + (has_total ? " of " + Megabytes(total) : "") + " MB";
}

void Show(const std::string& text) { (void)file::Write(STDERR_FILENO, text); }

// Starts a thread that takes no signals: the thread that does the work takes them.
template <typename Work>
std::thread ThreadWithoutSignals(Work work) {
  sigset_t all;
  sigset_t before;
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread;
  try {
    thread = std::thread(std::move(work));
  } catch (const std::system_error&) {
    // Without a thread there is no progress, but the step is done.
  }
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace

LongStep::LongStep(const Output& output, std::string what, std::function<std::uint64_t()> total)
    : what_(std::move(what)), total_(std::move(total)) {
  if (output.ShowsProgress()) thread_ = ThreadWithoutSignals([this] { Watch(); });
}

LongStep::~LongStep() {
  if (!thread_.joinable()) return;
  {
    const std::scoped_lock lock(mutex_);
    has_ended_ = true;
  }
  ended_.notify_one();
  thread_.join();
}

void LongStep::Watch() {
  const Clock::time_point begin = Clock::now();
  const Moved before = MovedSoFar();
  std::unique_lock lock(mutex_);
  bool is_shown = false;
  std::uint64_t total = 0;
  while (!ended_.wait_for(lock, is_shown ? kNext : kFirst, [this] { return has_ended_; })) {
    if (!is_shown && total_) total = total_();
    const Moved now = MovedSoFar();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
    Show(kWiped + ForTerminal(what_) + ": " + std::to_string(seconds) + " s, " +
         ReadText(now.read - before.read, total) + " read, " + Megabytes(now.written - before.written) + " MB written");
    is_shown = true;
  }
  if (is_shown) Show(kWiped);
}

}  // namespace qx::ctl
