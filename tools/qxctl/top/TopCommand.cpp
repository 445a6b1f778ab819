// Shows all reports repeatedly: on a terminal as a screen, otherwise as one table or document after the other.
#include "tools/qxctl/top/TopCommand.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/slice/SliceOptions.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/top/Screen.h"
#include "tools/qxctl/top/TopReports.h"
#include "tools/qxctl/top/TopTable.h"

namespace qx::ctl {

namespace {

constexpr double kIntervalMin = 0.1;
constexpr double kIntervalMax = 86400;
constexpr std::size_t kHeadLines = 2;  // of the table

struct Options {
  std::string directory;
  std::string field;
  TopClock::duration interval = std::chrono::seconds(1);
  std::optional<std::uint64_t> count;
  bool json = false;
  TimeRules time;
};

class Top {
 public:
  Top(Context& context, const Options& options)
      : output_(context.output),
        options_(options),
        view_{options.directory, options.time, ChartShapeHere().unicode},
        reports_(options.directory, options.field, {"", options.time}) {}

  Status Run() {
    next_ = TopClock::now();
    Poll();
    const report::FoundReports& found = reports_.Found();
    if (found.error == ENOENT) return NoSuchDirectory();
    if (found.error != 0) return Status::Io("cannot list " + Visible(options_.directory), found.error);
    return !options_.json && Screen::IsPossible() ? ShowScreen() : RunInRows();
  }

 private:
  [[nodiscard]] Status NoSuchDirectory() const {
    if (options_.directory != ReportDirectory()) {
      return {ExitCode::kNotFound, "there is no directory " + Visible(options_.directory)};
    }
    return NoReportDirectory(options_.directory);
  }

  void Poll() {
    reports_.Poll(TopClock::now());
    ++round_;
    next_ = std::max(next_ + options_.interval, TopClock::now());  // a round that took too long delays the others
  }

  [[nodiscard]] bool WasLast() const { return options_.count && round_ >= *options_.count; }

  [[nodiscard]] std::chrono::nanoseconds TimeToNext() const {
    return std::max<std::chrono::nanoseconds>(next_ - TopClock::now(), std::chrono::nanoseconds(0));
  }

  // --- on a terminal

  // An exception that nobody catches would end the process before the screen can restore the terminal.
  Status ShowScreen() {
    try {
      return RunOnScreen();
    } catch (const std::bad_alloc&) {
      return Status::Io("cannot show the reports", ENOMEM);
    }
  }

  // A signal that interrupts a write ends the command like one that ends a wait.
  Status RunOnScreen() {
    Screen screen;
    for (;;) {
      Status drawn = screen.Draw(LinesOnScreen());
      if (InterruptSignal() != 0) return {};
      if (!drawn.IsOk() || WasLast()) return drawn;
      if (!WaitOnScreen(screen)) return {};
    }
  }

  // Waits until the screen is to be drawn again. False if the command ends.
  bool WaitOnScreen(Screen& screen) {
    for (;;) {
      char key = 0;
      switch (screen.Wait(TimeToNext(), key)) {
        case Wake::kSignal:
          return false;
        case Wake::kRedraw:
          return true;
        case Wake::kKey:
          if (key == 'q' || key == 'Q') return false;
          if (key != ' ') break;
          first_row_ += RowsOnPage();
          return true;
        case Wake::kTime:
          if (TimeToNext().count() > 0) break;
          Poll();
          return true;
      }
    }
  }

  // The number of reports on a page. If the screen has no space for all reports, its last line says so.
  static std::size_t RowsOnPage() {
    constexpr std::size_t kOtherLines = kHeadLines + 1;
    return std::max(Screen::Size().lines, kOtherLines + 1) - kOtherLines;
  }

  std::vector<std::string> LinesOnScreen() {
    std::vector<std::string> lines = TopLines(reports_, view_, output_);
    lines.front() += "; q ends";
    if (lines.size() > Screen::Size().lines) ShowPage(lines);
    for (std::string& line : lines) line = output_.ForScreen(line);
    return lines;
  }

  // The page after the last one is the first one.
  void ShowPage(std::vector<std::string>& lines) {
    const std::size_t rows = lines.size() - kHeadLines;
    if (first_row_ >= rows) first_row_ = 0;
    const std::size_t end = std::min(first_row_ + RowsOnPage(), rows);
    const auto head_end = lines.begin() + kHeadLines;
    lines.erase(head_end + static_cast<std::ptrdiff_t>(end), lines.end());
    lines.erase(head_end, head_end + static_cast<std::ptrdiff_t>(first_row_));
    lines.push_back("reports " + std::to_string(first_row_ + 1) + " to " + std::to_string(end) + " of " +
                    std::to_string(rows) + "; the space key shows the next ones");
  }

  // --- anywhere else

  Status RunInRows() {
    for (;;) {
      if (Status status = Print(); !status.IsOk()) return status;
      if (Status status = output_.Show(); !status.IsOk()) return status;
      if (WasLast()) return {};
      do {
        if (Status status = WaitWhileOutputIsRead(TimeToNext()); !status.IsOk()) return status;
        if (InterruptSignal() != 0) return {};
      } while (TimeToNext().count() > 0);
      Poll();
    }
  }

  Status Print() {
    if (options_.json) return output_.Data(JsonLineOf(ToJson(reports_, view_, round_)));
    std::string text = round_ > 1 ? "\n" : "";
    for (const std::string& line : TopLines(reports_, view_, output_)) text += line + "\n";
    return output_.Data(text);
  }

  Output& output_;
  const Options& options_;
  const TopView view_;
  TopReports reports_;
  std::uint64_t round_ = 0;
  std::size_t first_row_ = 0;  // of the page that is shown, if not all reports fit
  TopClock::time_point next_;
};

Status RunTop(Context& context, const Values& values) {
  Options options;
  options.directory = values.Text("--reports");
  options.field = values.Text("--field");
  options.json = values.Flag("--json");
  options.time = TimeRulesOf(values);
  const std::chrono::duration<double> interval(values.Number("--interval", 1));
  options.interval = std::chrono::duration_cast<TopClock::duration>(interval);
  if (values.Has("--count")) options.count = static_cast<std::uint64_t>(values.Integer("--count", 0));
  if (options.directory.empty()) {
    if (Status status = FindReportDirectory(options.directory); !status.IsOk()) return status;
  }
  const InterruptGuard guard;
  return Top(context, options).Run();
}

constexpr Parameter kParameters[] = {
    {.name = "--field",
     .kind = ValueKind::kText,
     .value = "FIELD",
     .help = "The field that the last columns show (default: the first one with a number)"},
    {.name = "--interval",
     .kind = ValueKind::kNumber,
     .value = "SECONDS",
     .help = "Seconds between two readings of the reports",
     .limits = {kIntervalMin, kIntervalMax},
     .default_value = "1"},
    {.name = "--count",
     .kind = ValueKind::kInteger,
     .value = "N",
     .help = "End after this number of readings",
     .limits = kPositive},
    {.name = "--reports",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Report directory, instead of the one that the registry names"},
    {.name = "--utc", .help = "Show the time in UTC, not as local time"},
    {.name = "--json", .help = "Print one line of JSON after each reading"},
};

constexpr Example kExamples[] = {
    {"qxctl top", "Show all reports with rate, newest value and last values until q or ^C"},
    {"qxctl top --field cpu --interval 10", "Show the field cpu of each report every ten seconds"},
    {"qxctl top --count 1 --json", "Print the state of all reports once, for a program"},
};

}  // namespace

constinit const Command kTopCommand = {.words = "top",
                                       .help = "Watch all reports: rate, newest value, last values",
                                       .group = kReportsHeading,
                                       .run = RunTop,
                                       .parameters = {kParameters},
                                       .examples = kExamples};

}  // namespace qx::ctl
