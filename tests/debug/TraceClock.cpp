#include "tests/debug/TraceClock.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

namespace {

std::atomic<std::int64_t> fixed_ms{-1};  // below 0: the real clock

}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict zone) noexcept {
  const std::int64_t ms = fixed_ms;
  if (ms < 0) return static_cast<int>(::syscall(SYS_gettimeofday, now, zone));
  now->tv_sec = ms / 1000;
  now->tv_usec = ms % 1000 * 1000;
  return 0;
}

namespace qx::test {

TraceClock::TraceClock() {
  std::tm local{};
  local.tm_year = 126;
  local.tm_mon = 0;
  local.tm_mday = 31;
  local.tm_hour = 10;
  local.tm_min = 20;
  local.tm_sec = 30;
  local.tm_isdst = -1;
  fixed_ms = std::int64_t{std::mktime(&local)} * 1000;
}

TraceClock::~TraceClock() { fixed_ms = -1; }

void TraceClock::Advance(std::int64_t milliseconds) { fixed_ms += milliseconds; }

}  // namespace qx::test
