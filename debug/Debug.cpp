#include "debug/Debug.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "debug/ErrnoScope.h"
#include "debug/FormatText.h"
#include "debug/NoCancelScope.h"
#include "debug/TraceText.h"

using qx::LockScope;
using qx::debug::ErrnoScope;
using qx::debug::FormatText;
using qx::debug::NoCancelScope;

static_assert(sizeof(std::atomic<bool>) == 1, "callers test one byte");

namespace {

std::uint64_t PageSize() {
  const long size = ::sysconf(_SC_PAGESIZE);
  return size < 1 ? 4096 : static_cast<std::uint64_t>(size);
}

// The size of the ring: factor * weight * page size * 256 bytes. 0 (no ring) if a number is negative or the product has
// more than 32 bits.
std::uint32_t RingBytes(std::int32_t factor, std::int32_t weight) {
  if (factor < 0 || weight < 0) return 0;
  const std::uint64_t pages = static_cast<std::uint64_t>(factor) * static_cast<std::uint64_t>(weight) * 256;
  return pages <= UINT32_MAX / PageSize() ? static_cast<std::uint32_t>(pages * PageSize()) : 0;
}

}  // namespace

CDebug::CDebug() { ClassInit(); }

CDebug::~CDebug() {
  const LockScope scope(lock_);
  StopLocked();
  // Otherwise a trace call after the destruction would check settings files whose paths no longer exist.
  settings_.update_interval.store(0, std::memory_order_relaxed);
}

bool CDebug::IsMaster() { return true; }

void CDebug::ClassInit() {
  StopLocked();
  ResetSettings();
  log_.Reset();
  is_init_done_ = is_forced_off_ = false;
  last_check_.store(0, std::memory_order_relaxed);
  ring_size_ = 0;
  ring_path_.clear();
}

void CDebug::StopLocked() noexcept {
  const NoCancelScope no_cancel;
  SetLevel(0);
  saved_level_.store(0, std::memory_order_relaxed);
  target_.store(kTargetNone, std::memory_order_relaxed);
  log_.Close();
  ring_.Close();
}

void CDebug::SetLevel(std::uint32_t level) noexcept {
  current_level_.store(level, std::memory_order_relaxed);
  active_.store(level != 0, std::memory_order_relaxed);
}

bool CDebug::Init(const char* app_name) {
  const ErrnoScope errno_scope;
  const NoCancelScope no_cancel;
  const LockScope scope(lock_);
  try {
    if (app_name != nullptr) {
      StartLocked(app_name);
      return true;
    }
  } catch (const std::bad_alloc&) {
    // Continues with the failure below: a host must not end because of its tracing.
  }
  ::syslog(LOG_ERR, "ERROR: Error during initialization of the CDebug instance.\n");
  StopLocked();
  return false;
}

void CDebug::StartLocked(const char* app_name) {
  ClassInit();
  app_name_ = app_name;
  kept_header_.Forget();
  process_id_ = ::getpid();
  const std::time_t now = std::time(nullptr);
  qx::debug::FormatStartTime(now, start_time_);
  last_check_.store(now, std::memory_order_relaxed);
  header_variables_.Read();
  ReadDebugConfig(app_name);
  ComputeRing(app_name);
  OpenLog();
  SetLevel(settings_.level);
  if (IsActive() && ring_size_ != 0) (void)SetUpRing();  // a failure is written to the log, and tracing continues there
}

bool CDebug::ReadDebugConfig(const char* app_name) {
  ReadConfigFiles(app_name);
  ApplySources();
  saved_level_.store(settings_.level, std::memory_order_relaxed);
  return true;
}

void CDebug::OpenLog() {
  std::string file_name = app_name_;
  StringToLower(file_name.data());
  ring_path_ = std::string(settings_.trace_directory) + "/log." + file_name + "_a";
  if (log_.Open(settings_.trace_directory, file_name.c_str(), settings_.log_max_size)) SetTarget(kTargetLogFile);
}

void CDebug::ComputeRing(const char* app_name) {
  char variable[48] = "QX_LOG_RINGBUF_WEIGHT";
  BuildAppVarName(variable, sizeof variable, app_name);
  if (const char* weight = std::getenv(variable)) {
    settings_.ring_weight = static_cast<std::uint32_t>(std::strtol(weight, nullptr, 10));
  }
  const std::int32_t factor = std::min(static_cast<std::int32_t>(settings_.ring_factor), 2);
  settings_.ring_factor = static_cast<std::uint32_t>(factor);
  ring_size_ = RingBytes(factor, static_cast<std::int32_t>(settings_.ring_weight));
}

void CDebug::Print(std::uint32_t level, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  PrintV(level, format, args);
  va_end(args);
}

void CDebug::PrintV(std::uint32_t level, const char* format, std::va_list args) {
  if (settings_.update_interval.load(std::memory_order_relaxed) != 0) CheckDynamicUpdate(std::time(nullptr));
  if (level > current_level_.load(std::memory_order_relaxed)) return;
  const LockScope scope(lock_);
  WriteEntry(kTargetNone, format, args, nullptr);
}

void CDebug::PrintAlways(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  WriteToAll(format, args, nullptr);
  va_end(args);
}

void CDebug::PrintAlways(std::uint32_t, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  WriteToAll(format, args, nullptr);
  va_end(args);
}

void CDebug::PrintAlwaysV(const char* format, std::va_list args, const char* module) {
  WriteToAll(format, args, module);
}

// Not virtual, because before the constructor and after the destructor no virtual function can be called.
void CDebug::WriteToAll(const char* format, std::va_list args, const char* module) {
  const LockScope scope(lock_);
  const bool goes_to_ring = target_.load(std::memory_order_relaxed) == kTargetRingBuffer && ring_.IsOpen();
  if (goes_to_ring) {
    std::va_list for_ring;
    va_copy(for_ring, args);
    TraceToRingBuffer(format, for_ring, module);
    va_end(for_ring);
  }
  if (goes_to_ring && !ring_.IsOpen()) return;  // the ring was given up, and the entry written to the log
  TraceToLogFile(format, args, module);
}

void CDebug::ClientPrintV(const char* format, std::va_list args, const char* module) {
  const LockScope scope(lock_);
  WriteEntry(kTargetNone, format, args, module);
}

void CDebug::PrintIt(std::uint32_t target, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  WriteEntry(target, format, args, nullptr);
  va_end(args);
}

void CDebug::PrintToLogFile(const char* format, ...) {
  const LockScope scope(lock_);
  std::va_list args;
  va_start(args, format);
  TraceToLogFile(format, args, nullptr);
  va_end(args);
}

// Target 0 means the current target. If the current target is 0 as well, the entry is dropped.
void CDebug::WriteEntry(std::uint32_t target, const char* format, std::va_list args, const char* module) {
  const std::uint32_t to = target != kTargetNone ? target : target_.load(std::memory_order_relaxed);
  if (to == kTargetLogFile) TraceToLogFile(format, args, module);
  if (to == kTargetRingBuffer) TraceToRingBuffer(format, args, module);
}

void CDebug::TraceToLogFile(const char* format, std::va_list args, const char* module) {
  if (!log_.IsOpen() || format == nullptr) return;
  const ErrnoScope errno_scope;
  const NoCancelScope no_cancel;
  const Entry entry = FormatEntry(format, args, module);
  log_.Write(entry.text, entry.header_length);
}

CDebug::Entry CDebug::FormatEntry(const char* format, std::va_list args, const char* module) {
  const int callers_errno = errno;
  const std::size_t header_length = PutEntryHeaderLocked(entry_, qx::debug::kEntryHeaderCharsMax + 1, module);
  char* const text = entry_ + header_length;

  errno = callers_errno;  // for "%m" in the format
  const int full_length = FormatText(text, kEntryTextCharsMax + 1, qx::debug::WithoutLeadingLineFeeds(format), args);
  if (full_length < 0) text[0] = '\0';
  std::size_t length = std::strlen(text);  // a NUL from "%c" ends the entry
  const bool is_cut = length == kEntryTextCharsMax && static_cast<std::size_t>(full_length) > length;
  if (length == 0 || text[length - 1] != '\n') text[length++] = '\n';
  return {{entry_, header_length + length}, header_length, is_cut ? static_cast<std::size_t>(full_length) : 0};
}

std::size_t CDebug::SetEntryHeader(char* buffer, std::size_t size, const char* module) {
  const LockScope scope(lock_);
  return PutEntryHeaderLocked(buffer, size, module);
}

std::size_t CDebug::PutEntryHeaderLocked(char* buffer, std::size_t size, const char* module) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  const auto thread = static_cast<std::uint32_t>(::pthread_self());
  const bool shows_memory = settings_.memory_traces != 0;
  if (module == nullptr && !shows_memory && size > qx::debug::kEntryHeaderCharsMax) {
    return kept_header_.At(now, thread, app_name_.c_str(), buffer);
  }
  const NoCancelScope no_cancel;  // the size is read from a file
  const std::size_t kilobytes = shows_memory ? qx::debug::ResidentKilobytes(process_id_) : 0;
  return qx::debug::FormatEntryHeader(buffer, size,
                                      {.stamp = stamp_.At(now),
                                       .thread = thread,
                                       .module = module != nullptr ? module : app_name_.c_str(),
                                       .resident_kilobytes = shows_memory ? &kilobytes : nullptr});
}

void CDebug::SetTarget(std::uint32_t target) { target_.store(target, std::memory_order_relaxed); }

bool CDebug::ForceMaxDebug(bool on) {
  const LockScope scope(lock_);
  current_level_.store(on ? saved_level_.load(std::memory_order_relaxed) : 0, std::memory_order_relaxed);
  active_.store(on, std::memory_order_relaxed);
  is_forced_off_ = !on;
  return true;
}

void CDebug::SetMainParams(int argc, char** argv) {
  const LockScope scope(lock_);
  argument_count_ = argv != nullptr ? argc : 0;
  arguments_ = argv;
  if (argument_count_ > 0) PrintCommandLine(kTargetAll);
}

void CDebug::SetApplInitDone() {
  const LockScope scope(lock_);
  log_.MarkInitEnd();
  if (target_.load(std::memory_order_relaxed) == kTargetRingBuffer) MarkRingInitEnd();
  is_init_done_ = true;
}

void CDebug::CheckDynamicUpdate(std::time_t now) {
  if (!IsUpdateDue(now)) return;
  const ErrnoScope errno_scope;
  const NoCancelScope no_cancel;
  const LockScope scope(lock_);
  if (!IsUpdateDue(now)) return;  // another thread has just checked
  last_check_.store(now, std::memory_order_relaxed);
  if (RereadConfigFiles(app_name_)) TakeUpdatedLevel();
}

// If the clock was set back, a check is due as well: otherwise the next check would be late by the same time.
bool CDebug::IsUpdateDue(std::time_t now) const noexcept {
  const std::int64_t passed = now - last_check_.load(std::memory_order_relaxed);
  const std::uint32_t interval = settings_.update_interval.load(std::memory_order_relaxed);
  return interval != 0 && (passed < 0 || passed >= interval);
}

// If tracing was switched off by ForceMaxDebug(false), it stays off. ForceMaxDebug(true) then sets the new level.
void CDebug::TakeUpdatedLevel() noexcept {
  saved_level_.store(settings_.level, std::memory_order_relaxed);
  if (!is_forced_off_) SetLevel(settings_.level);
}

void CDebug::BuildAppVarName(char* buffer, std::size_t size, const char* app_name) {
  if (buffer == nullptr || size == 0 || app_name == nullptr || *app_name == '\0') return;
  std::size_t at = std::min(::strnlen(buffer, size), size - 1);
  if (at < size - 1) buffer[at++] = '_';
  while (at < size - 1 && *app_name != '\0') buffer[at++] = qx::debug::UpperAscii(*app_name++);
  buffer[at] = '\0';
}

void CDebug::StringToLower(char* text) {
  if (text == nullptr) return;
  for (; *text != '\0'; ++text) *text = qx::debug::LowerAscii(*text);
}
