// Defines the trace object for a program that links the installed libraries and does not define `Debug` itself. The
// linker uses this separate archive only if `Debug` is undefined, so a program's own definition has precedence. Because
// of the priority the object outlives everything that traces. It writes nothing until the program calls Debug.Init.
#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;
