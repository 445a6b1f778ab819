// The main function of every benchmark program. It runs a second thread before anything is measured: from then on the
// C library's streams lock at every call, as they do in a service with worker threads.
#include <benchmark/benchmark.h>

#include <thread>

#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;

// A program defines this function if it has to prepare something before any thread starts.
void PrepareBeforeThreads();
__attribute__((weak)) void PrepareBeforeThreads() {}

int main(int argc, char** argv) {
  PrepareBeforeThreads();
  std::thread([] {}).join();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
