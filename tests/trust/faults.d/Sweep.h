// Tries a scenario with every fault of a plan: the first, second, ... call of a kind fails, until there are no further
// calls.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

struct SweepResult {
  long steps = 0;   // runs in which the fault occurred
  long broken = 0;  // of those, runs that broke a promise
  std::map<std::string, long> noted;
  std::vector<std::string> reports;  // the first ones of those that broke a promise
};

enum class SweepForm { kQuick, kLong };

SweepResult Sweep(const Scenario& scenario, SweepForm form);

}  // namespace qx::trust
