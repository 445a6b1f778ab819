// A scenario: a function of the system that is tried with every fault, and its promise, which must hold whatever fails.
#pragma once

#include <string>
#include <vector>

namespace qx::trust {

// The result of a check after a fault.
struct Finding {
  enum class Kind {
    kKept,
    kNoted,   // documented, though not ideal; counted by `text`
    kBroken,  // `text` describes it
  };
  Kind kind = Kind::kKept;
  std::string text = {};
};

inline Finding Kept() { return {}; }
inline Finding Noted(const char* text) { return {Finding::Kind::kNoted, text}; }
inline Finding Broken(const std::string& text) { return {Finding::Kind::kBroken, text}; }

// All parts run in one fresh process with an empty directory of its own. Only `run` has the fault.
struct Scenario {
  const char* name;
  const char* promise;
  void (*prepare)(const std::string& directory);
  void (*run)(const std::string& directory);
  void (*finish)();                                // closes what `run` leaves open by design; may be null
  Finding (*judge)(const std::string& directory);  // checks the state, and tries again without a fault
};

// Calls on this descriptor never fail, so that a log can use it.
void ExemptDescriptor(int descriptor);

// True if the fault of this step is a single open that fails with an error that may pass (EMFILE, ENFILE, ENOMEM,
// EINTR).
[[nodiscard]] bool IsTransientOpenFault();

std::vector<Scenario> ConfigurationScenarios();
std::vector<Scenario> StoreScenarios();
std::vector<Scenario> DirectoryScenarios();
std::vector<Scenario> ReportToolScenarios();
std::vector<Scenario> TraceScenarios();
std::vector<Scenario> ModuleScenarios();
std::vector<Scenario> WriterScenarios();

}  // namespace qx::trust
