// Measures the relay under load: three servers on this machine have the stream, in three copies. Prints one line of
// figures.
//
//   qxrelay_load rate SECONDS BYTES                        one report, as fast as its sender follows
//   qxrelay_load latency SECONDS RATE [COLLECTED]          one report with RATE records a second: from the append to a
//                                                          consumer or, with the program qxrelay as COLLECTED, to the
//                                                          report of a collector
//   qxrelay_load fleet SECONDS HOSTS REPORTS LINGER_MS     many hosts whose reports get one record a second each
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "debug/Debug.h"
#include "reportfile/ReportFileBase.h"
#include "sdk/Reader.h"
#include "tests/qxrelay/chaos/ChildProcess.h"
#include "tests/qxrelay/chaos/ServerConfigs.h"
#include "tests/qxrelay/load/LoadHost.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/stream/NatsConsume.h"

// The module's classes need this object. It writes nothing: this program has no traces.
__attribute__((init_priority(101))) CDebug Debug;

namespace qx::load {

namespace {

using std::chrono::milliseconds;

double SecondsOf(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// The processor seconds of a process until now.
double ProcessorSeconds(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  unsigned long user = 0;
  unsigned long system = 0;
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos) return 0;
  std::sscanf(text.c_str() + end + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system);
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Three servers, and a stream on them.
class Servers {
 public:
  explicit Servers(const std::string& directory) {
    for (chaos::ServerConfig& config : chaos::WriteServerConfigs(directory, settings_)) {
      processes_.push_back(std::make_unique<chaos::ChildProcess>(std::move(config.words), config.log));
      processes_.back()->Start();
    }
    settings_.bytes = std::uint64_t{4} << 30U;
    chaos::CreateStreamOfNewServers(settings_);
  }

  [[nodiscard]] const relay::StreamSettings& Settings() const { return settings_; }
  [[nodiscard]] double Processor() const {
    double seconds = 0;
    for (const auto& process : processes_) seconds += ProcessorSeconds(process->Number());
    return seconds;
  }

 private:
  relay::StreamSettings settings_;
  std::vector<std::unique_ptr<chaos::ChildProcess>> processes_;
};

// Runs the steps of all hosts' senders in a thread.
class Stepper {
 public:
  explicit Stepper(std::vector<std::unique_ptr<LoadHost>>& hosts) : hosts_(hosts), thread_([this] { Run(); }) {}
  ~Stepper() { Stop(); }
  void Stop() {
    is_stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }

  [[nodiscard]] std::uint64_t Records() const { return records_; }
  [[nodiscard]] std::uint64_t Messages() const { return messages_; }
  [[nodiscard]] std::uint64_t Lost() const { return lost_; }
  [[nodiscard]] double Processor() const { return processor_; }
  [[nodiscard]] std::size_t Connected() const { return connected_; }

 private:
  void Run() {
    const int ready = epoll_create1(EPOLL_CLOEXEC);
    std::vector<relay::TimeMs> wakes(hosts_.size());
    std::vector<int> files(hosts_.size(), -1);
    std::vector<epoll_event> events(1024);
    while (!is_stopping_) {
      const relay::TimeMs now = SteadyMs();
      relay::TimeMs wake = now + 100;
      for (std::size_t i = 0; i < hosts_.size(); ++i) {
        if (wakes[i] <= now) wakes[i] = hosts_[i]->Step(now);
        wake = std::min(wake, wakes[i]);
        const int file = hosts_[i]->Descriptor();
        if (file == files[i]) continue;
        files[i] = file;
        epoll_event event = {.events = EPOLLIN, .data = {.u64 = i}};
        if (file >= 0) epoll_ctl(ready, EPOLL_CTL_ADD, file, &event);
      }
      Publish();
      const auto wait = std::max<relay::TimeMs>(0, wake - SteadyMs());
      const int count = epoll_wait(ready, events.data(), static_cast<int>(events.size()), static_cast<int>(wait));
      for (int i = 0; i < count; ++i) wakes[events[static_cast<std::size_t>(i)].data.u64] = 0;
    }
    close(ready);
    for (const auto& host : hosts_) host->Finish();
  }

  void Publish() {
    std::uint64_t records = 0;
    std::uint64_t messages = 0;
    std::uint64_t lost = 0;
    std::size_t connected = 0;
    for (const auto& host : hosts_) {
      records += host->Counters().records;
      messages += host->Counters().messages;
      lost += host->Counters().gap_records;
      connected += host->IsConnected() ? 1 : 0;
    }
    records_ = records;
    messages_ = messages;
    lost_ = lost;
    connected_ = connected;
    processor_ = SecondsOf(CLOCK_THREAD_CPUTIME_ID);
  }

  std::vector<std::unique_ptr<LoadHost>>& hosts_;
  std::atomic<bool> is_stopping_ = false;
  std::atomic<std::uint64_t> records_ = 0;
  std::atomic<std::uint64_t> messages_ = 0;
  std::atomic<std::uint64_t> lost_ = 0;
  std::atomic<std::size_t> connected_ = 0;
  std::atomic<double> processor_ = 0;
  std::thread thread_;
};

// The processor time and the messages at one moment. The difference of two such figures is a result.
struct Figures {
  double time = SecondsOf(CLOCK_MONOTONIC);
  double sender = 0;
  double process = SecondsOf(CLOCK_PROCESS_CPUTIME_ID);
  double writer = SecondsOf(CLOCK_THREAD_CPUTIME_ID);
  double servers = 0;
  std::uint64_t records = 0;
  std::uint64_t messages = 0;
  std::uint64_t lost = 0;

  Figures(const Stepper& stepper, const Servers& of_servers)
      : sender(stepper.Processor()),
        servers(of_servers.Processor()),
        records(stepper.Records()),
        messages(stepper.Messages()),
        lost(stepper.Lost()) {}
};

void Print(const Figures& begin, const Figures& end) {
  const double seconds = end.time - begin.time;
  const auto records = static_cast<double>(end.records - begin.records);
  const auto messages = static_cast<double>(end.messages - begin.messages);
  const double sender = end.sender - begin.sender;
  const double writer = end.writer - begin.writer;
  const double library = end.process - begin.process - sender - writer;
  const double servers = end.servers - begin.servers;
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "%.1f s: %.0f records/s, %.0f messages/s, %.1f records a message, lost %llu; processors: sender %.3f, client "
      "library %.3f, writer %.3f, servers %.3f; us a record: sender %.2f, library %.2f, servers %.2f; memory %ld MiB\n",
      seconds, records / seconds, messages / seconds, records / std::max(messages, 1.0),
      static_cast<unsigned long long>(end.lost - begin.lost), sender / seconds, library / seconds, writer / seconds,
      servers / seconds, 1e6 * sender / records, 1e6 * library / records, 1e6 * servers / records,
      usage.ru_maxrss / 1024);
}

relay::SendSettings SettingsOf(int linger_ms) {
  relay::SendSettings settings;  // the other settings have their defaults
  settings.linger = milliseconds(linger_ms);
  settings.spread = milliseconds(0);
  settings.rescan = milliseconds(10'000);
  return settings;
}

using Hosts = std::vector<std::unique_ptr<LoadHost>>;

void WaitForConnections(const Stepper& stepper, std::size_t count) {
  for (int i = 0; i < 1200 && stepper.Connected() < count; ++i) std::this_thread::sleep_for(milliseconds(100));
  if (stepper.Connected() < count) throw std::runtime_error("not all hosts are connected");
}

// The writer is never ahead of the sender by more than half of the ring.
void Rate(const std::string& directory, int seconds, std::size_t bytes) {
  constexpr std::uint32_t kSlots = 200'000;
  constexpr std::size_t kBatch = 500;
  const Servers servers(directory);
  Hosts hosts;
  LoadReport report(directory, "h", 0, kSlots);
  hosts.push_back(std::make_unique<LoadHost>(directory, "h", servers.Settings(), SettingsOf(100)));
  Stepper stepper(hosts);
  WaitForConnections(stepper, 1);
  std::uint64_t written = 0;
  const auto write_until = [&](double end) {
    while (SecondsOf(CLOCK_MONOTONIC) < end) {
      if (written - stepper.Records() > kSlots / 2) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        continue;
      }
      report.Append(bytes, kBatch);
      written += kBatch;
    }
  };
  write_until(SecondsOf(CLOCK_MONOTONIC) + 2);
  const Figures begin(stepper, servers);
  write_until(begin.time + seconds);
  Print(begin, Figures(stepper, servers));
  stepper.Stop();
}

// Appends one record a second to each of the reports number `begin` to `end` of all, by host and report, for ever.
[[noreturn]] void AppendForEver(const std::string& directory, int begin, int end, int reports) {
  // It uses CReportFileBase, because qx::Writer searches all processes for another writer of each report.
  std::vector<std::unique_ptr<CReportFileBase>> all;
  for (int i = begin; i < end; ++i) {
    const std::string host = directory + "/h" + std::to_string(i / reports);
    std::filesystem::create_directories(host);
    all.push_back(std::make_unique<CReportFileBase>());
    if (!all.back()->Open((host + "/r" + std::to_string(i % reports)).c_str(), 1000)) std::abort();
  }
  const std::string text(100, 'x');
  const double start = SecondsOf(CLOCK_MONOTONIC);
  for (std::size_t done = 0;;) {
    const auto due = static_cast<std::size_t>((SecondsOf(CLOCK_MONOTONIC) - start) * static_cast<double>(all.size()));
    for (; done < due; ++done) {
      if (!all[done % all.size()]->writeLine(text.c_str())) std::abort();
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
}

// Several processes append, because one process may not open the files of all reports.
class Appenders {
 public:
  Appenders(const std::string& directory, int hosts, int reports) {
    constexpr int kReportsMax = 5000;
    for (int begin = 0; begin < hosts * reports; begin += kReportsMax) {
      const pid_t process = fork();
      if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        AppendForEver(directory, begin, std::min(hosts * reports, begin + kReportsMax), reports);
      }
      processes_.push_back(process);
    }
  }
  ~Appenders() {
    for (const pid_t process : processes_) kill(process, SIGKILL);
    for (const pid_t process : processes_) waitpid(process, nullptr, 0);
  }
  Appenders(const Appenders&) = delete;
  Appenders& operator=(const Appenders&) = delete;

 private:
  std::vector<pid_t> processes_;
};

void Fleet(const std::string& directory, int seconds, int host_count, int reports, int linger_ms) {
  const Appenders appenders(directory, host_count, reports);  // before this process has threads
  const Servers servers(directory);
  Hosts hosts;
  for (int i = 0; i < host_count; ++i) {
    hosts.push_back(
        std::make_unique<LoadHost>(directory, "h" + std::to_string(i), servers.Settings(), SettingsOf(linger_ms)));
  }
  Stepper stepper(hosts);
  WaitForConnections(stepper, hosts.size());
  std::this_thread::sleep_for(std::chrono::seconds(10));
  const Figures begin(stepper, servers);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  Print(begin, Figures(stepper, servers));
  stepper.Stop();
}

// Milliseconds from an append until its record was read.
class Latencies {
 public:
  // The records of the first two seconds do not count, because consumer and report are made in this time.
  void Take(std::string_view record) {
    std::int64_t begun = 0;
    std::from_chars(record.data(), record.data() + record.size(), begun);
    if (first_ == 0) first_ = begun;
    if (begun - first_ < 2'000'000'000) return;
    milliseconds_.push_back(static_cast<double>(WallNs() - begun) / 1e6);
  }
  void Print() {
    std::sort(milliseconds_.begin(), milliseconds_.end());
    const auto at = [&](double share) {
      return milliseconds_[static_cast<std::size_t>(share * static_cast<double>(milliseconds_.size() - 1))];
    };
    if (milliseconds_.empty()) return;
    std::printf("latency of %zu records in ms: median %.1f, p90 %.1f, p99 %.1f, p99.9 %.1f, most %.1f\n",
                milliseconds_.size(), at(0.5), at(0.9), at(0.99), at(0.999), at(1));
  }

 private:
  std::int64_t first_ = 0;
  std::vector<double> milliseconds_;
};

void FollowStream(const relay::StreamSettings& settings, const std::atomic<bool>& is_stopping, Latencies& latencies) {
  relay::NatsConsume consumer(settings);
  if (const auto problem = consumer.Connect("load", 100'000, milliseconds(30'000))) throw std::runtime_error(*problem);
  std::vector<relay::StreamMessage> messages;
  while (!is_stopping) {
    messages.clear();
    if (const auto problem = consumer.Fetch({.messages = 100}, milliseconds(200), messages))
      throw std::runtime_error(*problem);
    for (const relay::StreamMessage& stored : messages) {
      const relay::DecodedMessage message = relay::DecodeMessage(stored.payload);
      (void)consumer.Acknowledge(stored.receipt);
      if (message.head.kind != relay::MessageKind::kRecords) continue;
      for (const std::string_view text : message.texts) latencies.Take(text);
    }
  }
}

void FollowReport(const std::string& path, const std::atomic<bool>& is_stopping, Latencies& latencies) {
  Reader reader;
  while (!is_stopping && reader.Open(path).Failed()) std::this_thread::sleep_for(milliseconds(10));
  while (!is_stopping) {
    if (const auto record = reader.Next(milliseconds(100))) latencies.Take(record->text);
  }
}

void Latency(const std::string& directory, int seconds, int rate, const std::string& qxrelay) {
  const Servers servers(directory);
  Hosts hosts;
  LoadReport report(directory, "h", 0, 200'000);
  hosts.push_back(std::make_unique<LoadHost>(directory, "h", servers.Settings(), SettingsOf(100)));
  std::unique_ptr<chaos::ChildProcess> collector;
  if (!qxrelay.empty()) {
    std::string list;
    for (const std::string& server : servers.Settings().servers) list += (list.empty() ? "" : ", ") + server;
    std::filesystem::create_directory(directory + "/collected");
    test::WriteFile(
        directory + "/collector.ini",
        "[stream]\nservers=" + list + "\n[receive]\nname=load\nslots=1000000\nroot=" + directory + "/collected\n");
    collector = std::make_unique<chaos::ChildProcess>(
        std::vector<std::string>{qxrelay, "receive", "--config", directory + "/collector.ini"}, directory + "/log");
    collector->Start();
  }
  Stepper stepper(hosts);
  WaitForConnections(stepper, 1);
  Latencies latencies;
  std::atomic<bool> is_stopping = false;
  std::thread follower([&] {
    if (collector == nullptr) return FollowStream(servers.Settings(), is_stopping, latencies);
    FollowReport(directory + "/collected/h/r0", is_stopping, latencies);
  });
  const Figures begin(stepper, servers);
  std::int64_t done = 0;
  for (double now = begin.time; now < begin.time + seconds; now = SecondsOf(CLOCK_MONOTONIC)) {
    const auto due = static_cast<std::int64_t>((now - begin.time) * rate);
    for (; done < due; ++done) report.Append(100);
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  Print(begin, Figures(stepper, servers));
  std::this_thread::sleep_for(milliseconds(1500));
  is_stopping = true;
  follower.join();
  stepper.Stop();
  latencies.Print();
}

int Run(const std::vector<std::string>& words, const std::string& directory) {
  const auto number = [&](std::size_t i) {
    if (i >= words.size()) throw std::runtime_error("too few arguments");
    return static_cast<int>(std::strtol(words[i].c_str(), nullptr, 10));
  };
  const std::string mode = words.empty() ? "" : words[0];
  if (mode == "rate") {
    Rate(directory, number(1), static_cast<std::size_t>(number(2)));
  } else if (mode == "latency") {
    Latency(directory, number(1), number(2), words.size() > 3 ? words[3] : "");
  } else if (mode == "fleet") {
    Fleet(directory, number(1), number(2), number(3), number(4));
  } else {
    return 2;
  }
  return 0;
}

int Main(const std::vector<std::string>& words) {
  rlimit files = {};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &files);
  std::string directory = std::filesystem::temp_directory_path() / "qxrelay-load.XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) return 1;
  int code = 1;
  try {
    code = Run(words, directory);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "load: %s\n", problem.what());
  }
  std::filesystem::remove_all(directory);
  return code;
}

}  // namespace

}  // namespace qx::load

int main(int argc, char** argv) { return qx::load::Main({argv + 1, argv + argc}); }
