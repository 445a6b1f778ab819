// Reads a report while its writer works, in two ways, each with the steps that the documentation requires.
#pragma once

#include <atomic>
#include <string>

#include "tests/trust/rings.d/TortureRecord.h"

namespace qx::trust {

// Reads the whole report repeatedly, slot by slot through its own store object, until `stop`.
Tally ReadThroughStore(const std::string& base_path, const std::atomic<bool>& stop);

// Transfers the report repeatedly through the loaded module, a few hundred records a call, until `stop`.
Tally ReadThroughModule(const std::string& name, const std::atomic<bool>& stop);

}  // namespace qx::trust
