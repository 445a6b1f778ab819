// First cut of the interface that every floor traces through.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

class CDebug {
 public:
  CDebug() = default;
  virtual ~CDebug() = default;
  virtual bool IsMaster() { return true; }
  virtual void Print(std::uint32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  virtual void PrintAlways(const char* format, ...) __attribute__((format(printf, 2, 3)));
  bool Init(const char* app_name);
  void SetApplInitDone();
  bool ForceMaxDebug(bool) { return true; }
  bool IsActive() const noexcept { return active_.load(std::memory_order_relaxed); }

 private:
  std::atomic<bool> active_{false};
};

// One per binary, defined in that binary's own source with init_priority(101).
extern CDebug Debug;

// Traces at `level` when tracing is on; the arguments are not evaluated otherwise.
#define QX_TRACE(level, ...)                               \
  do {                                                     \
    if (Debug.IsActive()) Debug.Print(level, __VA_ARGS__); \
  } while (false)
