// Sends messages to the system log.
#pragma once

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <mutex>

// The priorities of syslog by name.
enum SysLogLevel {
  SysLogEmergency = LOG_EMERG,
  SysLogAlert = LOG_ALERT,
  SysLogCritical = LOG_CRIT,
  SysLogError = LOG_ERR,
  SysLogWarning = LOG_WARNING,
  SysLogNotice = LOG_NOTICE,
  SysLogInfo = LOG_INFO,
  SysLogDebug = LOG_DEBUG
};
static_assert(SysLogInfo == 6);

// Sends messages of the process to the system log, as "NAME[PID]: text" of facility local1.
//
// Threads: any thread; the C library's syslog does its own locking.
// Owns: the process's only connection of the C library. If the host has opened the connection already, this class opens
// it again with its own settings. Failure: not reported. Without a system log the console gets the messages (LOG_CONS).
class SysLogTraces {
 public:
  // The one object of the process, made at first use and never destroyed. [any thread]
  static SysLogTraces* getConnection();

  // Opens the connection of the process. getConnection does this once. [any thread]
  SysLogTraces();
  // Closes the connection of the process. [any thread]
  ~SysLogTraces();
  SysLogTraces(const SysLogTraces&) = delete;
  SysLogTraces& operator=(const SysLogTraces&) = delete;

  // The name under which the process was started, without its directory. The text lives as long as the process. [any
  // thread]
  [[nodiscard]] const char* getProcName() const;

  // Logs `text` with priority `level`; logs nothing if `text` is null. Quirk: the text is syslog's format, so "%%" logs
  // as "%", "%m" as the error text of errno, and any other conversion reads arguments that do not exist. For texts that
  // are not fixed, use logMessageVaList with "%s". [any thread]
  void logMessage(const char* text, SysLogLevel level) const volatile;

  // Logs a formatted message, cut to 1023 characters, with priority SysLogInfo. Leading line feeds of the format are
  // skipped, unless it has nothing else. A message that cannot be formatted is logged as "ERROR: cann't format
  // message"; a null format logs nothing. [any thread]
  void logMessageVaList(const char* format, std::va_list args) const volatile __attribute__((format(printf, 2, 0)));

  // Null until the first use. Is read without the lock; because of acquire order, the reader sees the complete object.
  static std::atomic<SysLogTraces*> pInstance;

 private:
  static std::mutex creation_mutex_;
};
