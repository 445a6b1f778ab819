// The parts of the crash tests. Each prints its table rows, and returns whether its promises were kept.
#pragma once

namespace qx::trust {

enum class CrashForm { kQuick, kLong };

bool CheckSaves(CrashForm form);
bool CheckKilledWriters(CrashForm form);
bool CheckKilledBatchWriters(CrashForm form);

}  // namespace qx::trust
