// The trace object of a program that links the installed libraries and defines none of its own. It is an archive of its
// own, so the linker uses it only if `Debug` is undefined: a program's own definition has precedence. The priority
// makes it outlive everything that traces. It stays inert until the program calls Debug.Init.
#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;
