// The one place where qxctl prints: data goes to standard output, everything else to standard error.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

// The amount of text on standard error in addition to problems: none, notes and progress, or also details.
enum class Verbosity { kQuiet, kNormal, kVerbose };

// kAuto: only for a stream that is a terminal, and never when NO_COLOR is set and not empty.
enum class ColorMode { kAuto, kAlways, kNever };

// The meaning of a colour. The last ones are for the lines of a chart.
enum class Style { kGood, kWarning, kBad, kStrong, kFaint, kLine1, kLine2, kLine3, kLine4, kLine5, kLine6 };

// Threads: used by the only thread.
// Failure: a write to standard output that failed is reported by every later call and by Finish. If standard error is
// closed, its text is lost without a message.
class Output {
 public:
  // Applies the command line's choices; called before anything is printed.
  void Configure(Verbosity verbosity, ColorMode color);

  // The name before problems, if the program is not qxctl.
  void SetProgram(std::string_view name) { program_ = name; }

  // From now on all bytes of the data go to standard output unchanged, even to a terminal. For --raw.
  void ShowRaw();

  // Data for standard output, byte for byte. If that is a terminal, control bytes are masked (ForTerminal in
  // cli/Text.h), because records and names come from others; only colours of Paint are kept.
  Status Data(std::string_view bytes);

  // Whether any data was printed.
  bool HasData() const { return has_data_; }

  // One JSON document on standard output, indented, with a line end. Bytes that are not UTF-8 become U+FFFD.
  Status Document(const Json& document);

  // Returns `text` for standard output, with the escape sequences of a colour around it if standard output has colours.
  // Texts of a JSON document must not be painted. Pad before painting: the sequences have bytes, but no width on the
  // screen.
  std::string Paint(Style style, std::string_view text) const;

  // The bytes that Data writes to standard output for `bytes`. For a command that draws on the terminal itself.
  [[nodiscard]] std::string ForScreen(std::string_view bytes) const;

  // Prints a line of explanation on standard error. If both outputs go to one terminal, the data so far is written
  // first. With --quiet nothing is printed, so the line must not be something that an operator has to know.
  void Note(std::string_view line);

  // A note that is printed only with --verbose.
  void Detail(std::string_view line);

  // "qxctl: MESSAGE" on standard error, always. A status without a message prints nothing.
  void Problem(std::string_view message);
  void Problem(const Status& status);

  // Prints a line that replaces the previous progress line. It is shown only if standard error is a terminal, at most
  // ten times a second, and not with --quiet. The next Note or Problem wipes it.
  void Progress(const std::string& line);

  // Whether progress is shown at all.
  bool ShowsProgress() const { return masks_err_ && verbosity_ != Verbosity::kQuiet; }

  // Writes the buffered data, for a command that continues and waits.
  Status Show() { return Flush(); }

  // Writes the buffered data and closes standard output: a full disk may be reported only here.
  Status Finish();

 private:
  Status Flush();
  void Say(std::string_view line, const std::string& prefix = {});
  void WipeProgress();

  std::string program_ = "qxctl";
  std::string buffer_;
  bool has_data_ = false;
  Status written_;  // the first failure is kept
  Verbosity verbosity_ = Verbosity::kNormal;
  bool color_out_ = false;  // standard output
  bool color_err_ = false;  // standard error
  bool masks_out_ = false;  // standard output is a terminal
  bool masks_err_ = false;
  std::string mark_;  // part of the sequences of Paint, which are not masked: nobody can guess it
  bool progress_shown_ = false;
  double progress_time_ = 0;
};

}  // namespace qx::ctl
