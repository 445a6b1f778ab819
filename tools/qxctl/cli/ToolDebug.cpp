// qxctl's own trace object: inert unless --trace asks for traces. Its priority makes it outlive everything that traces.
#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;
