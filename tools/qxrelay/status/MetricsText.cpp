#include "tools/qxrelay/status/MetricsText.h"

#include <charconv>
#include <cmath>

namespace qx::relay {

namespace {

// Escapes backslashes and line feeds; quotes only in the values of labels.
void AppendEscaped(std::string_view text, bool escapes_quotes, std::string& to) {
  for (const char byte : text) {
    if (byte == '\n') {
      to += "\\n";
      continue;
    }
    if (byte == '\\' || (byte == '"' && escapes_quotes)) to += '\\';
    to += byte;
  }
}

// The shortest text that is read back as the same number.
std::string NumberText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char digits[32];
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
  return {digits, end};
}

}  // namespace

void MetricsText::Family(std::string_view name, MetricKind kind, std::string_view help) {
  name_ = name;
  text_ += "# HELP " + name_ + " ";
  AppendEscaped(help, false, text_);
  text_ += "\n# TYPE " + name_ + (kind == MetricKind::kCounter ? " counter\n" : " gauge\n");
}

void MetricsText::Sample(MetricLabels labels, double value) { AddSample(labels, NumberText(value)); }

void MetricsText::AddSample(MetricLabels labels, std::string_view value) {
  text_ += name_;
  char separator = '{';
  for (const auto& [name, label] : labels) {
    text_ += separator;
    text_ += name;
    text_ += "=\"";
    AppendEscaped(label, true, text_);
    text_ += '"';
    separator = ',';
  }
  if (labels.size() > 0) text_ += '}';
  text_ += ' ';
  text_ += value;
  text_ += '\n';
}

}  // namespace qx::relay
