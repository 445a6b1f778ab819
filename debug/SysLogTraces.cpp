#include "debug/SysLogTraces.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <new>

#include "debug/TraceText.h"

constinit std::atomic<SysLogTraces*> SysLogTraces::pInstance{nullptr};
constinit std::mutex SysLogTraces::creation_mutex_;

namespace {

constexpr std::size_t kMessageBytes = 1024;

// The memory of the only object. So its construction cannot fail, and nothing is freed.
alignas(SysLogTraces) constinit unsigned char instance_memory[sizeof(SysLogTraces)] = {};

// "100% done" => "100%% done": syslog then shows the text as it was.
void DoublePercents(const char* text, char (&to)[2 * kMessageBytes]) {
  char* at = to;
  for (; *text != '\0'; ++text) {
    if (*text == '%') *at++ = '%';
    *at++ = *text;
  }
  *at = '\0';
}

}  // namespace

SysLogTraces* SysLogTraces::getConnection() {
  SysLogTraces* instance = pInstance.load(std::memory_order_acquire);
  if (instance != nullptr) return instance;
  const std::scoped_lock lock(creation_mutex_);
  instance = pInstance.load(std::memory_order_relaxed);
  if (instance == nullptr) {
    instance = ::new (instance_memory) SysLogTraces;
    pInstance.store(instance, std::memory_order_release);
  }
  return instance;
}

SysLogTraces::SysLogTraces() { ::openlog(getProcName(), LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL1); }

SysLogTraces::~SysLogTraces() { ::closelog(); }

const char* SysLogTraces::getProcName() const { return ::program_invocation_short_name; }

// Quirk: the text itself is the format. Callers rely on it: they write "%%" for a per cent sign.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void SysLogTraces::logMessage(const char* text, SysLogLevel level) const volatile {
  if (text != nullptr) ::syslog(level, text);
}
#pragma GCC diagnostic pop

void SysLogTraces::logMessageVaList(const char* format, std::va_list args) const volatile {
  if (format == nullptr) return;
  char message[kMessageBytes];
  const int length = std::vsnprintf(message, sizeof message, qx::debug::WithoutLeadingLineFeeds(format), args);
  if (length < 0) qx::debug::CopyText(message, "ERROR: cann't format message");
  char exact[2 * kMessageBytes];
  DoublePercents(message, exact);
  logMessage(exact, SysLogInfo);
}
