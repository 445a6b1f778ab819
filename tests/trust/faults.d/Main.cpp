// The program of the fault tests: trust_faults quick|long [WORD]. It prints a table row for each scenario, or only for
// those with WORD in their name; broken promises go to standard error.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "debug/Debug.h"
#include "tests/trust/faults.d/Sweep.h"

__attribute__((init_priority(101))) CDebug Debug;

namespace {

using qx::trust::Scenario;
using qx::trust::SweepForm;
using qx::trust::SweepResult;

std::vector<Scenario> AllScenarios() {
  std::vector<Scenario> all;
  for (const auto& part :
       {qx::trust::ConfigurationScenarios(), qx::trust::StoreScenarios(), qx::trust::WriterScenarios(),
        qx::trust::DirectoryScenarios(), qx::trust::ReportToolScenarios(), qx::trust::TraceScenarios(),
        qx::trust::ModuleScenarios()}) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

void Print(const Scenario& scenario, const SweepResult& result) {
  for (const std::string& report : result.reports) std::fprintf(stderr, "BROKEN: %s\n", report.c_str());
  std::printf("| faults: %s | %ld faults, %ld broken promises |", scenario.name, result.steps, result.broken);
  std::printf(" %s; no crash, no hang, no descriptor left, the next attempt works |\n", scenario.promise);
  for (const auto& [text, count] : result.noted)
    std::printf("| ... of these | %ld | documented: %s |\n", count, text.c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const SweepForm form = std::strcmp(argv[1], "long") == 0 ? SweepForm::kLong : SweepForm::kQuick;
  bool is_kept = true;
  for (const Scenario& scenario : AllScenarios()) {
    if (argc > 2 && std::strstr(scenario.name, argv[2]) == nullptr) continue;
    const auto start = std::chrono::steady_clock::now();
    const SweepResult result = Sweep(scenario, form);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::fprintf(stderr, "   %s: %ld faults in %.1f s\n", scenario.name, result.steps, seconds.count());
    Print(scenario, result);
    is_kept = is_kept && result.broken == 0;
  }
  return is_kept ? 0 : 1;
}
