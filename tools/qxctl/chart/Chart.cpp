#include "tools/qxctl/chart/Chart.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "tools/qxctl/chart/Scale.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr int kRows = 10;
constexpr int kEighths = 8;
constexpr int kSteps = 4;
constexpr std::size_t kColumnsMin = 20;
constexpr std::size_t kColumnsMax = 500;
constexpr std::size_t kColumnsDefault = 80;

constexpr std::array<const char*, kEighths + 1> kBlocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, kEighths + 1> kAscii = {" ", ".", ".", ".", ":", ":", ":", ":", "#"};

std::size_t ColumnsOfEnvironment() {
  const char* const text = std::getenv("COLUMNS");
  if (text == nullptr) return kColumnsDefault;
  const std::string_view digits = text;
  std::size_t columns = 0;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), columns);
  return parsed.ec == std::errc() && columns > 0 ? columns : kColumnsDefault;
}

bool LocaleIsUtf8() {
  for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    std::string upper = value;
    for (char& c : upper) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return upper.find("UTF-8") != std::string::npos || upper.find("UTF8") != std::string::npos;
  }
  return false;
}

// At most `count` numbers, each the highest of its share of the values.
std::vector<double> Highest(const std::vector<double>& values, std::size_t count) {
  if (values.size() <= count) return values;
  std::vector<double> highest;
  for (std::size_t i = 0; i < count; ++i) {
    const auto first = values.begin() + static_cast<std::ptrdiff_t>(i * values.size() / count);
    const auto last = values.begin() + static_cast<std::ptrdiff_t>((i + 1) * values.size() / count);
    highest.push_back(*std::max_element(first, last));
  }
  return highest;
}

// A bar's height in eighths of a row. Even the lowest value has a visible bar.
int HeightOf(double value, const Scale& scale) {
  return std::clamp(static_cast<int>(std::lround(scale.Share(value) * kRows * kEighths)), 1, kRows * kEighths);
}

std::string PadLeft(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

struct RowLabels {
  std::string high;
  std::string middle;
  std::string low;

  std::size_t Width() const { return std::max({high.size(), middle.size(), low.size()}); }
  // Row 0 is at the top; the axis follows the last row.
  std::string Of(int row) const { return row == 0 ? high : row == kRows / 2 ? middle : std::string(); }
};

std::string Row(const std::vector<double>& values, const Scale& scale, int row, bool unicode) {
  const auto& cells = unicode ? kBlocks : kAscii;
  std::string text;
  for (const double value : values) {
    const int filled = HeightOf(value, scale) - (kRows - 1 - row) * kEighths;
    text += cells[static_cast<std::size_t>(std::clamp(filled, 0, kEighths))];
  }
  return text;
}

// "0          119" under the axis: the numbers of the first and the last value.
std::string Footer(std::size_t indent, std::size_t width, std::size_t count) {
  const std::string last = std::to_string(count - 1);
  std::string line = std::string(indent, ' ') + "0";
  if (count > 1 && width > last.size() + 1) line += PadLeft(last, width - 1);
  return line + "\n";
}

}  // namespace

ChartShape ChartShapeHere() {
  winsize size = {};
  const bool is_terminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  const std::size_t columns = is_terminal ? size.ws_col : ColumnsOfEnvironment();
  return {std::clamp(columns, kColumnsMin, kColumnsMax), LocaleIsUtf8()};
}

std::string TextChart(const std::string& title, const std::vector<double>& values, const ChartShape& shape,
                      const Output& output) {
  std::string text = Visible(title) + "\n";
  if (values.empty()) return text;
  const Scale scale = ScaleOf(values, kSteps);
  const RowLabels labels = {AxisNumber(scale.high), AxisNumber(scale.low / 2 + scale.high / 2), AxisNumber(scale.low)};
  const std::size_t label_width = labels.Width();
  const std::vector<double> bars = Highest(values, shape.columns - std::min(shape.columns - 1, label_width + 2));
  for (int row = 0; row < kRows; ++row) {
    text += PadLeft(labels.Of(row), label_width) + (shape.unicode ? " │" : " |");
    text += output.Paint(Style::kGood, Row(bars, scale, row, shape.unicode)) + "\n";
  }
  text += PadLeft(labels.low, label_width) + (shape.unicode ? " └" : " +");
  for (std::size_t i = 0; i < bars.size(); ++i) text += shape.unicode ? "─" : "-";
  return text + "\n" + Footer(label_width + 2, bars.size(), values.size());
}

}  // namespace qx::ctl
