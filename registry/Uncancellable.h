// Internal: code in which the calling thread is not cancelled.
//
// Writing a trace line or a file is a cancellation point. The unwinding must not leave a destructor, which would end
// the whole process, nor leave a partly freed tree.
#pragma once

#include <pthread.h>

namespace qx::registry {

class UncancellableScope {
 public:
  UncancellableScope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~UncancellableScope() { pthread_setcancelstate(before_, nullptr); }
  UncancellableScope(const UncancellableScope&) = delete;
  UncancellableScope& operator=(const UncancellableScope&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace qx::registry
