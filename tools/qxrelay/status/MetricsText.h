// Writes metrics as the text that Prometheus reads.
//
//   # HELP qxrelay_report_lag_records Records that wait
//   # TYPE qxrelay_report_lag_records gauge
//   qxrelay_report_lag_records{host="h1",report="a\\b\"c"} 7
//
// All samples of a family come after its head. Label values are any UTF-8; "\", line feeds and quotes are escaped.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace qx::relay {

enum class MetricKind : std::uint8_t { kCounter, kGauge };

using MetricLabels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

// Threads: one thread. Throws std::bad_alloc.
class MetricsText {
 public:
  // Begins a family of samples. `name` is a valid name; that of a counter ends with "_total". [owning thread]
  void Family(std::string_view name, MetricKind kind, std::string_view help);

  // A sample of the family; the values of the labels are UTF-8. [owning thread]
  void Sample(MetricLabels labels, double value);
  template <std::unsigned_integral Number>
  void Sample(MetricLabels labels, Number value) {
    AddSample(labels, std::to_string(value));
  }

  [[nodiscard]] const std::string& Text() const { return text_; }

 private:
  void AddSample(MetricLabels labels, std::string_view value);

  std::string name_;
  std::string text_;
};

}  // namespace qx::relay
