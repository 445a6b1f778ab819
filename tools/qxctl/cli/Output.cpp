#include "tools/qxctl/cli/Output.h"

#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>

#include "base/File.h"
#include "tools/qxctl/cli/WriteAll.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kBufferBytes = std::size_t{64} << 10;
constexpr double kProgressSeconds = 0.1;
const char kStandardOutput[] = "standard output";

double NowSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void ToStandardError(const std::string& text) {
  (void)WriteAll(STDERR_FILENO, text, "standard error");  // a failure here cannot be reported anywhere
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
    case Style::kLine1:
      return "\033[32m";
    case Style::kWarning:
    case Style::kLine4:
      return "\033[33m";
    case Style::kLine2:
      return "\033[36m";
    case Style::kLine3:
      return "\033[35m";
    case Style::kLine5:
      return "\033[34m";
    case Style::kLine6:
      return "\033[31m";
    case Style::kBad:
      return "\033[1;31m";
    case Style::kStrong:
      return "\033[1m";
    case Style::kFaint:
      return "\033[2m";
  }
  return "";
}

constexpr char kPlain[] = "\033[0m";

// 128 random bits in hexadecimal digits, so that no text from elsewhere contains them.
std::string RandomMark() {
  std::array<unsigned char, 16> bytes = {};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    return {};  // without them, no colour
  std::string mark;
  for (const unsigned char byte : bytes) {
    mark += "0123456789abcdef"[byte >> 4];
    mark += "0123456789abcdef"[byte & 15];
  }
  return mark;
}

std::string Painted(bool is_on, Style style, std::string_view text) {
  if (!is_on || text.empty()) return std::string(text);
  return SequenceOf(style) + std::string(text) + kPlain;
}

}  // namespace

void Output::Configure(Verbosity verbosity, ColorMode color) {
  verbosity_ = verbosity;
  color_out_ = WantsColor(color, STDOUT_FILENO);
  color_err_ = WantsColor(color, STDERR_FILENO);
  masks_out_ = isatty(STDOUT_FILENO) == 1;
  masks_err_ = isatty(STDERR_FILENO) == 1;
  if (masks_out_ && color_out_) mark_ = RandomMark();
  color_out_ = color_out_ && !(masks_out_ && mark_.empty());
}

void Output::ShowRaw() {
  masks_out_ = false;
  mark_.clear();
}

Status Output::Data(std::string_view bytes) {
  const std::string masked = masks_out_ ? ForScreen(bytes) : std::string();
  if (masks_out_) bytes = masked;
  has_data_ = has_data_ || !bytes.empty();
  if (bytes.size() < kBufferBytes) {
    buffer_.append(bytes);
    return buffer_.size() < kBufferBytes ? written_ : Flush();
  }
  if (Flush().IsOk()) written_ = WriteAll(STDOUT_FILENO, bytes, kStandardOutput);
  return written_;
}

Status Output::Document(const Json& document) { return Data(ForTerminal(JsonText(document) + "\n", Masking::kJson)); }

std::string Output::Paint(Style style, std::string_view text) const {
  if (!color_out_ || mark_.empty() || text.empty()) return Painted(color_out_, style, text);
  return mark_ + SequenceOf(style) + std::string(text) + mark_ + kPlain;
}

// Masks everything except the sequences with the mark, and removes the mark.
std::string Output::ForScreen(std::string_view bytes) const {
  std::string shown;
  while (!mark_.empty()) {
    const std::size_t at = bytes.find(mark_);
    if (at == std::string_view::npos) break;
    shown += ForTerminal(bytes.substr(0, at));
    bytes.remove_prefix(at + mark_.size());
    const std::size_t end = bytes.find('m') + 1;  // of "ESC [ 32 m"; 0 if it is missing
    shown += bytes.substr(0, end);
    bytes.remove_prefix(end);
  }
  return shown + ForTerminal(bytes);
}

void Output::Note(std::string_view line) {
  if (verbosity_ != Verbosity::kQuiet) Say(line);
}

void Output::Detail(std::string_view line) {
  if (verbosity_ == Verbosity::kVerbose) Say(line);
}

void Output::Problem(std::string_view message) {
  const Style style = message.starts_with("warning: ") ? Style::kWarning : Style::kBad;
  Say(message, Painted(color_err_, style, program_ + ":") + " ");
}

void Output::Problem(const Status& status) {
  if (!status.Message().empty()) Problem(status.Message());
}

void Output::Progress(const std::string& line) {
  if (!ShowsProgress()) return;
  const double now = NowSeconds();
  if (now - progress_time_ < kProgressSeconds) return;
  WipeProgress();
  ToStandardError(ForTerminal(line));
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

void Output::Say(std::string_view line, const std::string& prefix) {
  WipeProgress();
  (void)Flush();  // a failure is kept for the next call
  ToStandardError(prefix + (masks_err_ ? ForTerminal(line) : std::string(line)) + "\n");
}

void Output::WipeProgress() {
  if (progress_shown_) ToStandardError("\r\033[K");
  progress_shown_ = false;
}

}  // namespace qx::ctl
