// Internal: makes a scope in which the calling thread cannot be cancelled.
//
// Writing a trace line or a file is a cancellation point. If a thread were cancelled inside a destructor, the process
// would end. If it were cancelled while a tree is freed, a part of the tree would stay.
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
