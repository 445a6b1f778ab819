// Copies a directory of 1,000 files of 100 KB with CDirectory, and the same files with "cp -a".
//
// The time is the processor time of the copying process. For cp this is a child process, which the harness does not
// measure by itself. Removing the copy is not timed.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "reportfile/Directory.h"

namespace {

constexpr int kFiles = 1000;
constexpr std::size_t kFileBytes = 100000;

std::string Directory() {
  static const std::string directory =
      std::filesystem::temp_directory_path().string() + "/qx-bench-" + std::to_string(getpid());
  return directory;
}

void RemoveAll(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

// Returns the directory to copy. It is created once and removed at the end of the process.
const std::string& Source() {
  static const std::string source = [] {
    std::string path = Directory() + "/from";
    std::filesystem::create_directories(path);
    for (int i = 0; i < kFiles; ++i) {
      const std::string bytes(kFileBytes, static_cast<char>('a' + i % 26));
      std::ofstream(path + "/report" + std::to_string(i) + ".dat", std::ios::binary) << bytes;
    }
    (void)std::atexit([] { RemoveAll(Directory()); });  // if this fails, the files are only left over
    return path;
  }();
  return source;
}

double Seconds(const rusage& usage) {
  const auto of = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

double OwnSeconds() {
  rusage usage;
  (void)getrusage(RUSAGE_SELF, &usage);  // cannot fail
  return Seconds(usage);
}

// Returns the processor time in seconds; negative if the copy failed.
double CopyByQx(const std::string& to) {
  const double before = OwnSeconds();
  if (!CDirectory::CopyDir(Source().c_str(), to.c_str(), "*.*", true)) return -1;
  return OwnSeconds() - before;
}

double CopyByCp(const std::string& to) {
  std::string words[] = {"cp", "-a", Source(), to};
  char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
  pid_t child = 0;
  if (posix_spawnp(&child, "cp", nullptr, nullptr, arguments, environ) != 0) return -1;
  int status = 0;
  rusage usage;
  if (wait4(child, &status, 0, &usage) != child || status != 0) return -1;
  return Seconds(usage);
}

template <double (*Copy)(const std::string&)>
void CopyFiles(benchmark::State& state) {
  const std::string to = Directory() + "/to";
  (void)Source();
  for (auto _ : state) {
    const double seconds = Copy(to);
    if (seconds < 0 || !std::filesystem::exists(to + "/report999.dat")) state.SkipWithError("files are missing");
    state.SetIterationTime(seconds);
    RemoveAll(to);
  }
}

BENCHMARK(CopyFiles<CopyByQx>)->Name("copy_1000_files_of_100kb/qx")->UseManualTime()->Iterations(2);
BENCHMARK(CopyFiles<CopyByCp>)->Name("copy_1000_files_of_100kb/cp_a")->UseManualTime()->Iterations(2);

}  // namespace
