#include "tools/qxctl/Output.h"

#include <unistd.h>

#include <chrono>
#include <cstddef>

#include "tools/qxctl/WriteAll.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kBufferBytes = std::size_t{64} << 10;
constexpr double kProgressSeconds = 0.1;
const char kStandardOutput[] = "standard output";

double NowSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void ToStandardError(const std::string& text) {
  (void)WriteAll(STDERR_FILENO, text, "standard error");  // there is nowhere left to say that this failed
}

}  // namespace

Status Output::Data(std::string_view bytes) {
  if (bytes.size() < kBufferBytes) {
    buffer_.append(bytes);
    return buffer_.size() < kBufferBytes ? written_ : Flush();
  }
  if (Flush().IsOk()) written_ = WriteAll(STDOUT_FILENO, bytes, kStandardOutput);
  return written_;
}

Status Output::Document(const Json& document) {
  constexpr int kIndent = 2;
  return Data(document.dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n");
}

void Output::Note(std::string_view line) {
  WipeProgress();
  (void)Flush();  // its failure is kept for the next call
  ToStandardError(std::string(line) + "\n");
}

void Output::Problem(const Status& status) {
  if (!status.Message().empty()) Note("qxctl: " + status.Message());
}

void Output::Progress(const std::string& line) {
  static const bool is_terminal = isatty(STDERR_FILENO) == 1;
  const double now = NowSeconds();
  if (!is_terminal || now - progress_time_ < kProgressSeconds) return;
  WipeProgress();
  ToStandardError(line);
  progress_shown_ = true;
  progress_time_ = now;
}

Status Output::Finish() {
  WipeProgress();
  if (Flush().IsOk() && close(STDOUT_FILENO) != 0) {
    written_ = Status::Io(std::string("cannot close ") + kStandardOutput, errno);
  }
  return written_;
}

Status Output::Flush() {
  if (written_.IsOk()) written_ = WriteAll(STDOUT_FILENO, buffer_, kStandardOutput);
  buffer_.clear();
  return written_;
}

void Output::WipeProgress() {
  if (progress_shown_) ToStandardError("\r\033[K");
  progress_shown_ = false;
}

}  // namespace qx::ctl
