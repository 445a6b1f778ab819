#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "markup/Markup.h"
#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/chart/Scale.h"
#include "tools/qxctl/chart/TimeAxis.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr double kWidth = 800;
constexpr double kHeight = 400;
constexpr double kLeft = 80;
constexpr double kRight = 780;
constexpr double kTop = 40;
constexpr double kBottom = 340;
constexpr int kSteps = 5;
constexpr double kLegendHeight = 20;         // of an entry
constexpr std::size_t kLabelChars = 90;      // the characters of labels for which the axis has space
constexpr std::size_t kPointPairsMax = 700;  // two points for each unit of width show every peak

// A colour, and dashes that distinguish the lines without colours.
struct Stroke {
  const char* color;
  const char* dashes;
};
constexpr std::array<Stroke, kChartLinesMax> kStrokes = {
    {{"#06c", ""}, {"#c30", "8 3"}, {"#083", "2 3"}, {"#909", "8 3 2 3"}, {"#960", "14 4"}, {"#055", "4 2"}}};

// Prepares a text that others have written: markup is escaped, control bytes are made visible, and bytes that are not
// UTF-8 are replaced.
std::string XmlText(const std::string& text) { return CMarkup::EscapeText(std::string_view(ValidUtf8(Visible(text)))); }

std::string Coordinate(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

// The range of the axis of times or records.
struct Range {
  std::int64_t first = 0;
  std::int64_t last = 0;

  [[nodiscard]] double XOf(std::int64_t x) const {
    const double share = last > first ? static_cast<double>(x - first) / static_cast<double>(last - first) : 0.5;
    return kLeft + share * (kRight - kLeft);
  }
};

double YOf(double value, const Scale& scale) { return kBottom - scale.Share(value) * (kBottom - kTop); }

// The points to draw: all points; or, if they are too many, the lowest and the highest of each share, in their order.
std::vector<ChartPoint> PointsToDraw(const std::vector<ChartPoint>& all) {
  const bool draws_all = all.size() <= 2 * kPointPairsMax;
  if (draws_all) return all;
  std::vector<ChartPoint> points;
  for (std::size_t i = 0; i < kPointPairsMax; ++i) {
    const auto first = all.begin() + static_cast<std::ptrdiff_t>(i * all.size() / kPointPairsMax);
    const auto last = all.begin() + static_cast<std::ptrdiff_t>((i + 1) * all.size() / kPointPairsMax);
    const auto [low, high] = std::minmax_element(
        first, last, [](const ChartPoint& one, const ChartPoint& other) { return one.value < other.value; });
    points.push_back(*std::min(low, high));
    if (low != high) points.push_back(*std::max(low, high));
  }
  return points;
}

std::string TextAt(double x, double y, const char* anchor, const std::string& text) {
  return "<text x=\"" + Coordinate(x) + "\" y=\"" + Coordinate(y) + "\" text-anchor=\"" + anchor + "\">" +
         XmlText(text) + "</text>\n";
}

std::string LineBetween(double x1, double y1, double x2, double y2, const char* color) {
  return "<line x1=\"" + Coordinate(x1) + "\" y1=\"" + Coordinate(y1) + "\" x2=\"" + Coordinate(x2) + "\" y2=\"" +
         Coordinate(y2) + "\" stroke=\"" + color + "\"/>\n";
}

// The number at a step of the axis. It is computed from the nearer end of the axis and from halves, so that no number
// overflows.
double StepValue(const Scale& scale, int step, int steps) {
  if (step <= steps / 2) return (scale.low / 2 + step * (scale.step / 2)) * 2;
  return (scale.high / 2 - (steps - step) * (scale.step / 2)) * 2;
}

std::string ValueLabels(const Scale& scale) {
  std::string svg;
  const auto steps = static_cast<int>(std::lround((scale.high / 2 - scale.low / 2) / scale.step * 2));
  for (int i = 0; i <= steps; ++i) {
    const double value = StepValue(scale, i, steps);
    svg += LineBetween(kLeft, YOf(value, scale), kRight, YOf(value, scale), "#ddd");
    svg += TextAt(kLeft - 6, YOf(value, scale) + 4, "end", AxisNumber(value));
  }
  return svg;
}

std::string RecordLabels(const Range& range) {
  std::string svg = TextAt(range.XOf(range.first), kBottom + 18, "middle", std::to_string(range.first));
  if (range.last > range.first) svg += TextAt(kRight, kBottom + 18, "middle", std::to_string(range.last));
  return svg + TextAt((kLeft + kRight) / 2, kBottom + 40, "middle", "number of the record");
}

std::string TimeLabels(const Range& range, const TimeRules& rules) {
  std::string svg;
  for (const TimeTick& tick : TimeTicks(range.first, range.last, kLabelChars, rules)) {
    const double x = range.XOf(tick.time_ms);
    svg += LineBetween(x, kTop, x, kBottom, "#ddd");
    svg += TextAt(x, kBottom + 18, "middle", tick.label);
  }
  return svg + TextAt((kLeft + kRight) / 2, kBottom + 40, "middle", TimeRangeText(range.first, range.last, rules));
}

std::string Labels(const ChartData& data, const Range& range) {
  if (!data.HasPoints()) return "";
  return data.has_times ? TimeLabels(range, data.time) : RecordLabels(range);
}

// The two axes and the line at zero. They are drawn over the grid.
std::string Axes(const Scale& scale) {
  const std::string axes =
      LineBetween(kLeft, kTop, kLeft, kBottom, "#333") + LineBetween(kLeft, kBottom, kRight, kBottom, "#333");
  const bool has_zero_line = scale.low < 0 && scale.high > 0;
  return has_zero_line ? axes + LineBetween(kLeft, YOf(0, scale), kRight, YOf(0, scale), "#333") : axes;
}

std::string DashesOf(const Stroke& stroke) {
  return *stroke.dashes == '\0' ? "" : std::string(" stroke-dasharray=\"") + stroke.dashes + "\"";
}

std::string LineOf(const ChartLine& line, const Stroke& stroke, const Scale& scale, const Range& range) {
  if (line.points.size() == 1) {
    return "<circle cx=\"" + Coordinate(range.XOf(line.points[0].x)) + "\" cy=\"" +
           Coordinate(YOf(line.points[0].value, scale)) + "\" r=\"3\" fill=\"" + stroke.color + "\"/>\n";
  }
  std::string points;
  for (const ChartPoint& point : PointsToDraw(line.points)) {
    points += (points.empty() ? "" : " ") + Coordinate(range.XOf(point.x)) + "," + Coordinate(YOf(point.value, scale));
  }
  return std::string("<polyline fill=\"none\" stroke=\"") + stroke.color + "\" stroke-width=\"1.5\"" +
         DashesOf(stroke) + " points=\"" + points + "\"/>\n";
}

// For each field a piece of its line, and its text of the legend.
std::string Legend(const std::vector<ChartLine>& lines) {
  std::string svg;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const double y = kHeight + static_cast<double>(i) * kLegendHeight;
    svg += "<line x1=\"" + Coordinate(kLeft) + "\" y1=\"" + Coordinate(y - 4) + "\" x2=\"" + Coordinate(kLeft + 40) +
           "\" y2=\"" + Coordinate(y - 4) + "\" stroke=\"" + kStrokes[i].color + "\" stroke-width=\"1.5\"" +
           DashesOf(kStrokes[i]) + "/>\n";
    svg += TextAt(kLeft + 50, y, "start", LegendOf(lines[i]));
  }
  return svg;
}

std::string FieldNextToAxis(const std::string& field) {
  return "<text transform=\"translate(20 190) rotate(-90)\" text-anchor=\"middle\">" + XmlText(field) + "</text>\n";
}

}  // namespace

std::string SvgChart(const ChartData& data) {
  const Scale scale = ScaleOf(data.Values(), kSteps);
  const bool has_legend = data.lines.size() > 1;
  const double legend_height = has_legend ? static_cast<double>(data.lines.size()) * kLegendHeight : 0;
  const std::string width = AxisNumber(kWidth);
  const std::string height = AxisNumber(kHeight + legend_height);
  const Range range = data.HasPoints() ? Range{data.First(), data.Last()} : Range{};
  std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  svg += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + width + "\" height=\"" + height + "\" viewBox=\"0 0 " +
         width + " " + height + "\"\n  font-family=\"sans-serif\" font-size=\"12\">\n";
  svg += "<title>" + XmlText(data.title) + "</title>\n";
  svg += "<rect width=\"" + width + "\" height=\"" + height + "\" fill=\"#fff\"/>\n";
  svg += TextAt(kWidth / 2, kTop - 16, "middle", data.title);
  svg += ValueLabels(scale) + Labels(data, range) + Axes(scale);
  svg += has_legend ? Legend(data.lines) : FieldNextToAxis(data.lines.front().field);
  for (std::size_t i = 0; i < data.lines.size(); ++i) {
    if (!data.lines[i].points.empty()) svg += LineOf(data.lines[i], kStrokes[i], scale, range);
  }
  return svg + "</svg>\n";
}

}  // namespace qx::ctl
