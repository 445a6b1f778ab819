// Defines the Debug object of a fuzz program. It is never initialised, so tracing does not slow the runs.
#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;
