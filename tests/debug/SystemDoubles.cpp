// Stands before the C library's syslog, write and fstat in this test program: the system log is a list that tests read,
// writes on one chosen descriptor are counted and may be made short, one write may be made to fail, and every fstat.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "tests/debug/TraceFixture.h"

namespace {

std::mutex messages_mutex;
std::vector<std::string>* messages = nullptr;  // null: nobody listens

std::atomic<int> watched_descriptor{-1};
std::atomic<std::size_t> write_bytes_max{0};
std::atomic<int> write_count{0};

std::atomic<int> writes_until_failure{0};  // 0: none fails
std::atomic<int> failure_error{0};

std::atomic<bool> status_is_unreadable{false};

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

// What syslog becomes in a fortified build.
void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  Collect(priority, format, args);
  va_end(args);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
  if (writes_until_failure > 0 && --writes_until_failure == 0) {
    errno = failure_error;
    return -1;
  }
  if (descriptor >= 0 && descriptor == watched_descriptor) {
    ++write_count;
    if (size > write_bytes_max) size = write_bytes_max;
  }
  return ::syscall(SYS_write, descriptor, bytes, size);
}

int fstat(int descriptor, struct stat* status) noexcept {
  if (status_is_unreadable) {
    errno = EIO;
    return -1;
  }
  return ::fstatat(descriptor, "", status, AT_EMPTY_PATH);
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

WriteCalls::WriteCalls(int descriptor, std::size_t bytes_max) {
  write_count = 0;
  write_bytes_max = bytes_max;
  watched_descriptor = descriptor;
}

WriteCalls::~WriteCalls() { watched_descriptor = -1; }

int WriteCalls::Count() const { return write_count; }

FailedWrite::FailedWrite(int nth, int error) {
  failure_error = error;
  writes_until_failure = nth;
}

FailedWrite::~FailedWrite() { writes_until_failure = 0; }

UnreadableStatus::UnreadableStatus() { status_is_unreadable = true; }

UnreadableStatus::~UnreadableStatus() { status_is_unreadable = false; }

}  // namespace qx::test
