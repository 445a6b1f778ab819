#include "tools/qxctl/chart/Chart.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

#include "tools/qxctl/chart/BarChart.h"
#include "tools/qxctl/chart/PointChart.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kColumnsMin = 20;
constexpr std::size_t kColumnsMax = 500;
constexpr std::size_t kColumnsDefault = 80;

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

}  // namespace

ChartShape ChartShapeHere() {
  winsize size = {};
  const bool is_terminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  const std::size_t columns = is_terminal ? size.ws_col : ColumnsOfEnvironment();
  return {std::clamp(columns, kColumnsMin, kColumnsMax), LocaleIsUtf8()};
}

std::string TextChart(const ChartData& data, const ChartShape& shape, const Output& output) {
  std::string title = Visible(data.title) + "\n";
  if (!data.HasPoints()) return title;
  return title + (data.lines.size() == 1 ? BarChart(data, shape, output) : PointChart(data, shape, output));
}

}  // namespace qx::ctl
