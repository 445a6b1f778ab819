// The Debug object of a fuzz program: never initialised, so that runs are not slowed by tracing.
#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;
