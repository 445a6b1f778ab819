// Uses the whole terminal as a screen that is drawn again and again, and reads the keys that are pressed meanwhile.
//
// While the screen is shown, the terminal has its second buffer, no cursor and no line wrap, and keys are read at once,
// not echoed. At the end of the screen all of this is restored, also after a signal that InterruptGuard records or a
// write that fails. ^Z suspends the process with the terminal restored.
//
// Threads: one screen at a time, on the only thread, within an InterruptGuard.
#pragma once

#include <termios.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

struct ScreenSize {
  std::size_t columns = 80;
  std::size_t lines = 24;
};

// Why a wait ended.
enum class Wake {
  kTime,    // the time is over
  kKey,     // a key was pressed
  kRedraw,  // the size has changed, or the process continues after ^Z
  kSignal   // InterruptSignal()
};

class Screen {
 public:
  // Whether standard output is a terminal that can be drawn on.
  [[nodiscard]] static bool IsPossible();

  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  // Draws the lines, from the top. What does not fit is cut.
  Status Draw(const std::vector<std::string>& lines);

  [[nodiscard]] static ScreenSize Size();

  // Waits for at most `time`. `key` is the pressed key; a key that sends several bytes counts as several keys.
  [[nodiscard]] Wake Wait(std::chrono::nanoseconds time, char& key);

 private:
  void Enter();
  void Leave();
  void Suspend();
  [[nodiscard]] bool ReadKey(char& key);

  std::optional<termios> before_;  // of standard input, if that is a terminal
  bool has_keys_ = false;
  bool is_entered_ = false;
};

}  // namespace qx::ctl
