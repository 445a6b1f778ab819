// Replaces the C library's syslog in this test program: messages go to a list that tests read.
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "tests/debug/TraceFixture.h"

namespace {

std::mutex messages_mutex;
std::vector<std::string>* messages = nullptr;  // null: messages are dropped

void Collect(int priority, const char* format, std::va_list args) {
  char text[2048];
  const int length = std::vsnprintf(text, sizeof text, format, args);
  const std::scoped_lock lock(messages_mutex);
  if (messages != nullptr && length >= 0) messages->push_back(std::to_string(priority) + " " + text);
}

}  // namespace

extern "C" {

void syslog(int priority, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  Collect(priority, format, args);
  va_end(args);
}

// syslog has this name in a fortified build.
void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  Collect(priority, format, args);
  va_end(args);
}

}  // extern "C"

namespace qx::test {

SyslogCapture::SyslogCapture() {
  const std::scoped_lock lock(messages_mutex);
  messages = new std::vector<std::string>;
}

SyslogCapture::~SyslogCapture() {
  const std::scoped_lock lock(messages_mutex);
  delete messages;
  messages = nullptr;
}

std::vector<std::string> SyslogCapture::Messages() const {
  const std::scoped_lock lock(messages_mutex);
  return *messages;
}

}  // namespace qx::test
