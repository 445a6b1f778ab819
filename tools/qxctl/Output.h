// The one place where qxctl prints: data goes to standard output, everything else to standard error.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tools/qxctl/Status.h"

namespace qx::ctl {

// Keys stay in the order in which a command adds them.
using Json = nlohmann::ordered_json;

// Threads: used by the only thread.
// Failure: a write to standard output that failed is reported by every later call and by Finish. What goes to standard
// error is lost silently if that is closed, as everywhere.
class Output {
 public:
  // Data for standard output, byte for byte.
  Status Data(std::string_view bytes);

  // One JSON document on standard output, indented, with a line end. Bytes that are not UTF-8 become U+FFFD.
  Status Document(const Json& document);

  // A line of explanation on standard error, behind the data so far if both go to one terminal.
  void Note(std::string_view line);

  // "qxctl: MESSAGE" on standard error, if the status has a message.
  void Problem(const Status& status);

  // A line that replaces the previous progress line; shown only if standard error is a terminal, ten times a second at
  // most. The next Note or Problem wipes it.
  void Progress(const std::string& line);

  // Writes what is still buffered, for a command that goes on and waits.
  Status Show() { return Flush(); }

  // Writes what is still buffered and closes standard output: a full disk may show only here.
  Status Finish();

 private:
  Status Flush();
  void WipeProgress();

  std::string buffer_;
  Status written_;  // the first failure stays
  bool progress_shown_ = false;
  double progress_time_ = 0;
};

}  // namespace qx::ctl
