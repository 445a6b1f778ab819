#include "tools/qxrelay/status/Flow.h"

namespace qx::relay {

void SetOvertaken(ReportFlow& flow) {
  const double rate = flow.records_per_second.value_or(0);
  if (!flow.ring_slots.has_value() || !flow.lag_records.has_value() || rate <= 0) return;
  const std::uint64_t slots = *flow.ring_slots;
  const std::uint64_t lag = *flow.lag_records;
  const std::uint64_t left = slots > 1 && slots - 1 > lag ? slots - 1 - lag : 0;
  flow.overtaken_in_s = static_cast<double>(left) / rate;
}

}  // namespace qx::relay
