// The program of the crash tests: trust_crash quick|long [saves|writers|batches]. It prints table rows; broken promises
// go to standard error.
#include <cstring>

#include "debug/Debug.h"
#include "tests/trust/crash.d/Rows.h"

__attribute__((init_priority(101))) CDebug Debug;

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const bool is_long = std::strcmp(argv[1], "long") == 0;
  const auto form = is_long ? qx::trust::CrashForm::kLong : qx::trust::CrashForm::kQuick;
  const char* const part = argc > 2 ? argv[2] : "";
  const bool is_known = std::strcmp(part, "") == 0 || std::strcmp(part, "saves") == 0 ||
                        std::strcmp(part, "writers") == 0 || std::strcmp(part, "batches") == 0;
  if (!is_known) return 2;
  bool is_kept = true;
  const auto is_part = [part](const char* name) { return *part == '\0' || std::strcmp(part, name) == 0; };
  if (is_part("saves")) is_kept = qx::trust::CheckSaves(form);
  if (is_part("writers")) is_kept = qx::trust::CheckKilledWriters(form) && is_kept;
  if (is_part("batches")) is_kept = qx::trust::CheckKilledBatchWriters(form) && is_kept;
  return is_kept ? 0 : 1;
}
