// Writes trace entries to the log file and to the ring, and compares with spdlog, with C library calls and with plain
// copies.
//
// Every row writes the same line: time stamp with milliseconds, thread, module column and a text with three arguments.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "debug/Debug.h"
#ifdef QX_HAVE_SPDLOG
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr const char* kReport = "PerformanceThresholds";
constexpr int kRecords = 1000;
constexpr char kReadyLine[] =
    "2026-01-31 10:20:30.123 [0A1B2C3D] QxBench       WCSP_QX GetReports  : \"PerformanceThresholds\" record 500 of "
    "1000\n";
constexpr std::size_t kReadyBytes = sizeof kReadyLine - 1;
// Every log is limited to this size, each in its own way, so most writes overwrite pages that are in the page cache.
constexpr const char* kLogBytesMax = "1048576";
constexpr std::size_t kLogLinesMax = 1048576 / kReadyBytes;

// A private directory for the row, removed at the end.
class Directory {
 public:
  Directory() : path_((std::filesystem::temp_directory_path() / "qx-trace-XXXXXX").string()) {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  std::string File(const char* name) const { return path_ + "/" + name; }
  const char* Path() const { return path_.c_str(); }

 private:
  std::string path_;
};

// Starts the program's trace facility at `level`, with a ring of `weight` MiB (0: no ring).
void StartTracing(const Directory& directory, const char* level, const char* weight) {
  ::setenv("QX_LOG_RINGBUF_DIR", directory.Path(), 1);
  ::setenv("QX_LOG_FILE_MAX_SIZE", kLogBytesMax, 1);
  ::setenv("QX_LOG_DEBUG_LEVEL", level, 1);
  ::setenv("TraceFileLimit", "1", 1);
  ::setenv("QX_LOG_RINGBUF_WEIGHT", weight, 1);
  if (!Debug.Init("QxBench")) throw std::runtime_error("no trace");
}

void StopTracing() {
  ::setenv("QX_LOG_DEBUG_LEVEL", "0", 1);
  (void)Debug.Init("QxBench");
}

void TraceEntries(benchmark::State& state) {
  int record = 0;
  for (auto _ : state) {
    QX_TRACE(2, "\nWCSP_QX GetReports  : \"%s\" record %d of %d", kReport, record, kRecords);
    record = record < kRecords ? record + 1 : 0;
  }
}

void OffQx(benchmark::State& state) {
  const Directory directory;
  StartTracing(directory, "0", "0");
  TraceEntries(state);
}

// Does the least that a trace call has to do when tracing is off: tests a flag. The time includes the loop counter.
void OffLimit(benchmark::State& state) {
  static std::atomic<bool> flag{false};
  benchmark::DoNotOptimize(&flag);
  int record = 0;
  for (auto _ : state) {
    if (flag.load(std::memory_order_relaxed)) benchmark::DoNotOptimize(record);
    record = record < kRecords ? record + 1 : 0;
  }
}

void LogQx(benchmark::State& state) {
  const Directory directory;
  StartTracing(directory, "2", "0");
  TraceEntries(state);
  StopTracing();
}

void RingQx(benchmark::State& state) {
  const Directory directory;
  StartTracing(directory, "2", "4");
  TraceEntries(state);
  StopTracing();
}

#ifdef QX_HAVE_SPDLOG
void LogSpdlog(benchmark::State& state) {
  const Directory directory;
  const auto logger = spdlog::rotating_logger_mt("QxBench", directory.File("log"), kLogLinesMax * kReadyBytes, 1);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%t] %-13n %v");
  logger->flush_on(spdlog::level::trace);
  int record = 0;
  for (auto _ : state) {
    logger->info("WCSP_QX GetReports  : \"{}\" record {} of {}", kReport, record, kRecords);
    record = record < kRecords ? record + 1 : 0;
  }
  spdlog::drop_all();
}
#endif

// Formats the line with C library calls; the time is formatted again for each line.
std::size_t FormatLine(char (&line)[512], int record) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  std::tm local{};
  ::localtime_r(&now.tv_sec, &local);
  char second[22];
  std::strftime(second, sizeof second, "%F %H:%M:%S", &local);
  const int length =
      std::snprintf(line, sizeof line, "%s.%03d [%08X] %-13s WCSP_QX GetReports  : \"%s\" record %d of %d\n", second,
                    static_cast<int>(now.tv_usec / 1000), static_cast<unsigned>(::pthread_self()), "QxBench", kReport,
                    record, kRecords);
  return static_cast<std::size_t>(length);
}

void LogStdio(benchmark::State& state) {
  const Directory directory;
  std::FILE* const file = std::fopen(directory.File("log").c_str(), "we");
  int record = 0;
  char line[512];
  std::size_t written = 0;
  for (auto _ : state) {
    const std::size_t length = FormatLine(line, record);
    std::fwrite(line, 1, length, file);
    std::fflush(file);
    if (++written % kLogLinesMax == 0) std::rewind(file);
    record = record < kRecords ? record + 1 : 0;
  }
  std::fclose(file);
}

void FormatOnly(benchmark::State& state) {
  int record = 0;
  char line[512];
  for (auto _ : state) {
    benchmark::DoNotOptimize(FormatLine(line, record));
    benchmark::DoNotOptimize(&line);
    record = record < kRecords ? record + 1 : 0;
  }
}

void LogLimit(benchmark::State& state) {
  const Directory directory;
  const int file = ::open(directory.File("log").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  std::size_t written = 0;
  for (auto _ : state) {
    if (::write(file, kReadyLine, kReadyBytes) < 0) state.SkipWithError("no write");
    if (++written % kLogLinesMax == 0) ::lseek(file, 0, SEEK_SET);
  }
  ::close(file);
}

void RingLimit(benchmark::State& state) {
  std::vector<char> ring(4U << 20);
  std::size_t at = 0;
  for (auto _ : state) {
    std::memcpy(ring.data() + at, kReadyLine, kReadyBytes);
    benchmark::ClobberMemory();
    at = at + 2 * kReadyBytes < ring.size() ? at + kReadyBytes : 0;
  }
}

BENCHMARK(OffQx)->Name("trace_off/qx");
BENCHMARK(OffLimit)->Name("trace_off/limit");
BENCHMARK(LogQx)->Name("trace_log/qx");
#ifdef QX_HAVE_SPDLOG
BENCHMARK(LogSpdlog)->Name("trace_log/spdlog");
#endif
BENCHMARK(LogStdio)->Name("trace_log/strftime_snprintf_fflush");
BENCHMARK(LogLimit)->Name("trace_log/limit");
BENCHMARK(RingQx)->Name("trace_ring/qx");
BENCHMARK(FormatOnly)->Name("trace_ring/strftime_snprintf");
BENCHMARK(RingLimit)->Name("trace_ring/limit");

}  // namespace
