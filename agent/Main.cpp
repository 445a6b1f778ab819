// qxagent: samples load, memory, disks and network of this machine into reports.
//
// qxagent is also an example of an agent as a service: it writes with sdk/Writer.h, informs the service manager when it
// is ready and that it is alive, and ends on SIGTERM. It does not become a daemon, log to files or read settings files.
#include <getopt.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Reports.h"
#include "agent/Samples.h"
#include "base/File.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kWrongUsage = 2;
constexpr int kFailed = 6;
constexpr std::uint32_t kIntervalMsMin = 10;
constexpr std::uint32_t kIntervalMsMax = 86'400'000;
constexpr std::size_t kProcBytesMax = std::size_t{4} << 20;
constexpr std::uint32_t kSlotsMax = 1'073'741'823;

constexpr const char kHelp[] =
    "Usage: qxagent [OPTION]...\n"
    "Samples load, memory, disks and network of this machine into reports, until SIGTERM.\n"
    "\n"
    "  --reports NAME    directory of the reports, below the report directory (default: host)\n"
    "  --directory PATH  the same as a path, instead of --reports\n"
    "  --interval MS     milliseconds between two samples (default: 10000)\n"
    "  --slots N         records that a new report keeps (default: 8640)\n"
    "  --count N         end after N samples\n"
    "  --help            print this help and exit\n"
    "  --version         print the version and exit\n";

struct Options {
  std::string directory = qx::ReportPath("host");
  std::uint32_t interval_ms = 10'000;
  std::uint32_t slots = 8640;
  std::uint32_t count = std::numeric_limits<std::uint32_t>::max();
};

// Reads a whole number. False if the text is not a number from `min` to `max`.
bool ReadNumber(std::string_view text, std::uint32_t min, std::uint32_t max, std::uint32_t* number) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < min || value > max) return false;
  *number = value;
  return true;
}

enum OptionCode { kReports = 256, kDirectory, kInterval, kSlots, kCount, kHelpOption, kVersionOption };

constexpr option kOptions[] = {
    {"reports", required_argument, nullptr, kReports},   {"directory", required_argument, nullptr, kDirectory},
    {"interval", required_argument, nullptr, kInterval}, {"slots", required_argument, nullptr, kSlots},
    {"count", required_argument, nullptr, kCount},       {"help", no_argument, nullptr, kHelpOption},
    {"version", no_argument, nullptr, kVersionOption},   {nullptr, 0, nullptr, 0},
};

// False if the value of the option is wrong.
bool SetOption(int code, const char* value, Options* options) {
  switch (code) {
    case kReports:
      options->directory = qx::ReportPath(value);
      return *value != '\0' && !options->directory.empty();
    case kDirectory:
      options->directory = value;
      return *value != '\0';
    case kInterval:
      return ReadNumber(value, kIntervalMsMin, kIntervalMsMax, &options->interval_ms);
    case kSlots:
      return ReadNumber(value, 1, kSlotsMax, &options->slots);
    case kCount:
      return ReadNumber(value, 1, std::numeric_limits<std::uint32_t>::max(), &options->count);
    default:
      return false;
  }
}

// The exit code if the program must end; -1 if it continues.
int ReadOptions(int argc, char** argv, Options* options) {
  int option = 0;
  for (int code = 0; (code = getopt_long(argc, argv, "", kOptions, &option)) != -1;) {
    if (code == kHelpOption) return std::fputs(kHelp, stdout) < 0 ? kFailed : 0;
    if (code == kVersionOption) return std::puts("qxagent " QX_VERSION) < 0 ? kFailed : 0;
    if (code == '?') return kWrongUsage;  // getopt has printed the reason
    if (!SetOption(code, optarg, options)) {
      std::fprintf(stderr, "qxagent: --%s: \"%s\" is not valid; see qxagent --help\n", kOptions[option].name, optarg);
      return kWrongUsage;
    }
  }
  if (optind == argc) return -1;
  std::fprintf(stderr, "qxagent: \"%s\" is not an option; see qxagent --help\n", argv[optind]);
  return kWrongUsage;
}

// The content of the file; empty if it cannot be read.
std::string TextOf(const char* path) {
  const qx::file::Descriptor file = qx::file::Open(path, O_RDONLY);
  std::string text;
  const bool is_read = file.IsOpen() && qx::file::ReadWhole(file.Number(), text, kProcBytesMax) == 0;
  return is_read ? text : "";
}

qx::agent::ProcTexts ReadProc() {
  return {.loadavg = TextOf("/proc/loadavg"),
          .meminfo = TextOf("/proc/meminfo"),
          .diskstats = TextOf("/proc/diskstats"),
          .net_dev = TextOf("/proc/net/dev")};
}

// "2026-01-31 10:00:00 ", local time
std::string Stamp() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  (void)localtime_r(&now, &parts);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S ", &parts)};
}

// The signals that end the agent. They are blocked, and accepted only while the agent waits.
class EndSignals {
 public:
  EndSignals() {
    sigemptyset(&signals_);
    for (const int signal : {SIGTERM, SIGINT}) sigaddset(&signals_, signal);
    (void)sigprocmask(SIG_BLOCK, &signals_, nullptr);  // fails only for a wrong argument
  }

  // Waits until `time`. True if a signal has arrived.
  [[nodiscard]] bool ArriveBefore(Clock::time_point time) const {
    for (;;) {
      const auto left = std::max(Clock::duration::zero(), time - Clock::now());
      const auto whole = std::chrono::duration_cast<seconds>(left);
      const timespec wait = {.tv_sec = whole.count(), .tv_nsec = std::chrono::nanoseconds(left - whole).count()};
      const int signal = sigtimedwait(&signals_, nullptr, &wait);
      const int error = errno;
      if (signal > 0) return true;
      if (error != EINTR) return false;
    }
  }

 private:
  sigset_t signals_ = {};
};

// A third of the time after which the service manager ends an agent that does not report that it is alive; a day if
// there is no watchdog.
Clock::duration WatchdogPeriod() {
  std::uint64_t period = 0;
  if (sd_watchdog_enabled(0, &period) <= 0) return std::chrono::hours(24);
  return microseconds(std::max<std::uint64_t>(period / 3, 1));
}

class Agent {
 public:
  explicit Agent(const Options& options) : options_(options), reports_(options.directory, options.slots) {}

  // Samples until the end. Returns the exit code.
  int Run() {
    if (!TakeSample(0)) return kFailed;
    (void)sd_notify(0, ("READY=1\nSTATUS=Samples into " + options_.directory).c_str());
    Clock::time_point last = Clock::now();
    Clock::time_point next = last;
    for (std::uint32_t taken = 1; taken < options_.count; ++taken) {
      next = std::max(next + milliseconds(options_.interval_ms), last);  // samples that were missed are left out
      if (WaitUntil(next)) break;
      const Clock::time_point now = Clock::now();
      const bool is_stored = TakeSample(std::chrono::duration<double>(now - last).count());
      last = now;
      if (is_stored) ShowRecovery();
    }
    (void)sd_notify(0, "STOPPING=1");
    return 0;
  }

 private:
  // Waits until `time`, and reports meanwhile that the agent is alive. True if the agent must end.
  bool WaitUntil(Clock::time_point time) {
    for (;;) {
      const Clock::time_point now = Clock::now();
      if (now >= next_alive_) {
        (void)sd_notify(0, "WATCHDOG=1");
        next_alive_ = now + watchdog_period_;
      }
      if (signals_.ArriveBefore(std::min(time, next_alive_))) return true;
      if (Clock::now() >= time) return false;
    }
  }

  // Stores one sample of each report. False if a record was not stored; the others are stored all the same. Of several
  // failures in a row only the first is reported.
  bool TakeSample(double seconds_since) {
    const std::string stamp = Stamp();
    bool is_stored = true;
    const std::vector<qx::agent::Sample> samples = samples_.Take(ReadProc(), seconds_since);
    reports_.CloseOthers(samples);
    for (const qx::agent::Sample& sample : samples) {
      const qx::Error error = reports_.Append(sample.report, stamp + sample.text);
      if (!error.Failed()) continue;
      is_stored = false;
      if (!has_failed_) std::fprintf(stderr, "qxagent: %s\n", error.text.c_str());
      if (!has_failed_) (void)sd_notify(0, ("STATUS=" + error.text).c_str());
      has_failed_ = true;
    }
    return is_stored;
  }

  void ShowRecovery() {
    if (!has_failed_) return;
    has_failed_ = false;
    std::fputs("qxagent: records are stored again\n", stderr);
    (void)sd_notify(0, ("STATUS=Samples into " + options_.directory).c_str());
  }

  const Options options_;
  const EndSignals signals_;
  const Clock::duration watchdog_period_ = WatchdogPeriod();
  Clock::time_point next_alive_ = Clock::now() + watchdog_period_;
  qx::agent::Samples samples_;
  qx::agent::Reports reports_;
  bool has_failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const int code = ReadOptions(argc, argv, &options); code >= 0) return code;
  return Agent(options).Run();
}
