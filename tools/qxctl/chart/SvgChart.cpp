#include <algorithm>
#include <cmath>
#include <cstdio>

#include "markup/Markup.h"
#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/chart/Scale.h"
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
constexpr std::size_t kPointPairsMax = 700;  // two points for each unit of width show every peak

// For texts of others: markup is escaped, control bytes are made visible, and bytes that are not UTF-8 are replaced.
std::string XmlText(const std::string& text) { return CMarkup::EscapeText(std::string_view(ValidUtf8(Visible(text)))); }

std::string Coordinate(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

double XOf(std::size_t index, std::size_t count) {
  const double share = count > 1 ? static_cast<double>(index) / static_cast<double>(count - 1) : 0.5;
  return kLeft + share * (kRight - kLeft);
}

double YOf(double value, const Scale& scale) { return kBottom - scale.Share(value) * (kBottom - kTop); }

// The values to draw: all, or the lowest and the highest of each share, in their order.
std::vector<std::size_t> Points(const std::vector<double>& values) {
  std::vector<std::size_t> points;
  const bool draws_all = values.size() <= 2 * kPointPairsMax;
  const std::size_t shares = draws_all ? values.size() : kPointPairsMax;
  for (std::size_t i = 0; i < shares; ++i) {
    const auto first = values.begin() + static_cast<std::ptrdiff_t>(i * values.size() / shares);
    const auto last = values.begin() + static_cast<std::ptrdiff_t>((i + 1) * values.size() / shares);
    const auto [low, high] = std::minmax_element(first, last);
    points.push_back(static_cast<std::size_t>(std::min(low, high) - values.begin()));
    if (low != high) points.push_back(static_cast<std::size_t>(std::max(low, high) - values.begin()));
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

// The number at a step of the axis, counted from its nearer end and in halves, so that no number overflows.
double StepValue(const Scale& scale, int step, int steps) {
  if (step <= steps / 2) return (scale.low / 2 + step * (scale.step / 2)) * 2;
  return (scale.high / 2 - (steps - step) * (scale.step / 2)) * 2;
}

std::string ValueAxis(const Scale& scale) {
  std::string svg;
  const auto steps = static_cast<int>(std::lround((scale.high / 2 - scale.low / 2) / scale.step * 2));
  for (int i = 0; i <= steps; ++i) {
    const double value = StepValue(scale, i, steps);
    svg += LineBetween(kLeft, YOf(value, scale), kRight, YOf(value, scale), "#ddd");
    svg += TextAt(kLeft - 6, YOf(value, scale) + 4, "end", AxisNumber(value));
  }
  return svg + LineBetween(kLeft, kTop, kLeft, kBottom, "#333");
}

std::string RecordAxis(std::size_t count) {
  std::string svg = LineBetween(kLeft, kBottom, kRight, kBottom, "#333");
  if (count == 0) return svg;
  svg += TextAt(XOf(0, count), kBottom + 18, "middle", "0");
  if (count > 1) svg += TextAt(kRight, kBottom + 18, "middle", std::to_string(count - 1));
  return svg + TextAt((kLeft + kRight) / 2, kBottom + 40, "middle", "number of the record");
}

std::string Line(const std::vector<double>& values, const Scale& scale) {
  if (values.size() == 1) {
    return "<circle cx=\"" + Coordinate(XOf(0, 1)) + "\" cy=\"" + Coordinate(YOf(values[0], scale)) +
           "\" r=\"3\" fill=\"#06c\"/>\n";
  }
  std::string points;
  for (const std::size_t i : Points(values)) {
    points += (points.empty() ? "" : " ") + Coordinate(XOf(i, values.size())) + "," + Coordinate(YOf(values[i], scale));
  }
  return "<polyline fill=\"none\" stroke=\"#06c\" stroke-width=\"1.5\" points=\"" + points + "\"/>\n";
}

}  // namespace

std::string SvgChart(const std::string& title, const std::string& field, const std::vector<double>& values) {
  const Scale scale = ScaleOf(values, kSteps);
  std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  svg +=
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"800\" height=\"400\" viewBox=\"0 0 800 400\" "
      "font-family=\"sans-serif\" font-size=\"12\">\n";
  svg += "<title>" + XmlText(title) + "</title>\n";
  svg += "<rect width=\"" + Coordinate(kWidth) + "\" height=\"" + Coordinate(kHeight) + "\" fill=\"#fff\"/>\n";
  svg += TextAt(kWidth / 2, kTop - 16, "middle", title);
  svg += ValueAxis(scale) + RecordAxis(values.size());
  svg += "<text transform=\"translate(20 190) rotate(-90)\" text-anchor=\"middle\">" + XmlText(field) + "</text>\n";
  if (!values.empty()) svg += Line(values, scale);
  return svg + "</svg>\n";
}

}  // namespace qx::ctl
