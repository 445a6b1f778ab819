// Defers the cancellation of the calling thread until a trace call has ended.
//
// Reads, writes and syslog are cancellation points, and the sinks are noexcept: if a thread were cancelled inside them,
// the process would end.
#pragma once

#include <pthread.h>

namespace qx::debug {

// Cancellation is disabled from construction to the end of the scope; a request stays pending.
class NoCancelScope {
 public:
  NoCancelScope() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
  ~NoCancelScope() { ::pthread_setcancelstate(state_, nullptr); }
  NoCancelScope(const NoCancelScope&) = delete;
  NoCancelScope& operator=(const NoCancelScope&) = delete;

 private:
  int state_ = 0;
};

}  // namespace qx::debug
