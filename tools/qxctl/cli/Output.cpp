#include "tools/qxctl/cli/Output.h"

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>

#include "base/File.h"
#include "tools/qxctl/cli/WriteAll.h"
#include "tools/qxctl/cli/text/JsonText.h"

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

bool WantsColor(ColorMode mode, int descriptor) {
  if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
  const char* const no_color = std::getenv("NO_COLOR");
  const bool is_forbidden = no_color != nullptr && *no_color != '\0';
  return !is_forbidden && isatty(descriptor) == 1;
}

const char* SequenceOf(Style style) {
  switch (style) {
    case Style::kGood:
      return "\033[32m";
    case Style::kWarning:
      return "\033[33m";
    case Style::kBad:
      return "\033[1;31m";
    case Style::kStrong:
      return "\033[1m";
    case Style::kFaint:
      return "\033[2m";
  }
  return "";
}

std::string Painted(bool is_wanted, Style style, std::string_view text) {
  if (!is_wanted || text.empty()) return std::string(text);
  return SequenceOf(style) + std::string(text) + "\033[0m";
}

}  // namespace

void Output::Configure(Verbosity verbosity, ColorMode color) {
  verbosity_ = verbosity;
  color_out_ = WantsColor(color, STDOUT_FILENO);
  color_err_ = WantsColor(color, STDERR_FILENO);
}

Status Output::Data(std::string_view bytes) {
  if (bytes.size() < kBufferBytes) {
    buffer_.append(bytes);
    return buffer_.size() < kBufferBytes ? written_ : Flush();
  }
  if (Flush().IsOk()) written_ = WriteAll(STDOUT_FILENO, bytes, kStandardOutput);
  return written_;
}

Status Output::Document(const Json& document) { return Data(JsonText(document) + "\n"); }

std::string Output::Paint(Style style, std::string_view text) const { return Painted(color_out_, style, text); }

void Output::Note(std::string_view line) {
  if (verbosity_ != Verbosity::kQuiet) Say(line);
}

void Output::Detail(std::string_view line) {
  if (verbosity_ == Verbosity::kVerbose) Say(line);
}

void Output::Problem(std::string_view message) {
  Say(Painted(color_err_, Style::kBad, "qxctl:") + " " + std::string(message));
}

void Output::Problem(const Status& status) {
  if (!status.Message().empty()) Problem(status.Message());
}

void Output::Progress(const std::string& line) {
  static const bool is_terminal = isatty(STDERR_FILENO) == 1;
  if (!is_terminal || verbosity_ == Verbosity::kQuiet) return;
  const double now = NowSeconds();
  if (now - progress_time_ < kProgressSeconds) return;
  WipeProgress();
  ToStandardError(line);
  progress_shown_ = true;
  progress_time_ = now;
}

Status Output::Finish() {
  WipeProgress();
  if (!Flush().IsOk()) return written_;
  const int error = file::Descriptor(STDOUT_FILENO).Close();
  if (error != 0) written_ = Status::Io(std::string("cannot close ") + kStandardOutput, error);
  return written_;
}

Status Output::Flush() {
  if (written_.IsOk()) written_ = WriteAll(STDOUT_FILENO, buffer_, kStandardOutput);
  buffer_.clear();
  return written_;
}

void Output::Say(std::string_view line) {
  WipeProgress();
  (void)Flush();  // its failure is kept for the next call
  ToStandardError(std::string(line) + "\n");
}

void Output::WipeProgress() {
  if (progress_shown_) ToStandardError("\r\033[K");
  progress_shown_ = false;
}

}  // namespace qx::ctl
