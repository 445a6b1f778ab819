/* Changes the wall clock of a process into which it is preloaded, by the number of seconds in the file $QX_CLOCK_JUMP.
   Clocks that cannot be set stay as they are. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

int clock_gettime(clockid_t clock, struct timespec* time) {
  const int result = (int)syscall(SYS_clock_gettime, clock, time);
  if (result != 0 || clock != CLOCK_REALTIME) return result;
  const char* const name = getenv("QX_CLOCK_JUMP");
  FILE* const file = name != NULL ? fopen(name, "re") : NULL;
  if (file == NULL) return result;
  char text[32] = "";
  if (fgets(text, sizeof text, file) != NULL) time->tv_sec += strtol(text, NULL, 10);
  fclose(file);
  return result;
}
