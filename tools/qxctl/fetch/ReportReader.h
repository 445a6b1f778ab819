// Requests records of one report from the module and parses the replies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/module/ModuleHost.h"
#include "tools/qxctl/module/ReportDocuments.h"

namespace qx::ctl {

// The end of a record: its line feed, or the byte 0xFF at which a reader stops. Only a record that is cut at a NUL has
// no end.
constexpr bool EndsRecord(char byte) { return byte == '\n' || byte == '\xFF'; }

// "a\r\nb\r\n" => "a\r\n"
[[nodiscard]] std::string_view FirstRecord(std::string_view records);

// Threads: one thread, the one that also uses `worker`.
class ReportReader {
 public:
  ReportReader(WorkerThread& worker, std::string report) : worker_(worker), report_(std::move(report)) {}

  // Calls the module, up to three times if the report cannot be read; kIo if the third call fails, too. Start index 0
  // begins a new snapshot.
  Status Ask(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply);

  // kChanged if a reply with records is not for `start_index`, or contradicts itself.
  Status Check(std::int32_t start_index, const ReportReply& reply) const;

  // The records of a reply one by one. If a record has no end, the second half of the records is requested from the
  // module once more, and so on by halves. These requests read the snapshot of the reply, so no other request may be
  // made between Ask and Split. kChanged if the replies differ.
  Status Split(const ReportReply& reply, std::vector<std::string>& records);

  const std::string& Report() const { return report_; }
  double ModuleSeconds() const { return module_seconds_; }

 private:
  static constexpr int kTriesMax = 3;

  Status AskOnce(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply);
  Status SplitRange(std::int32_t start, std::int32_t end, std::string_view text, std::vector<std::string>& records);

  WorkerThread& worker_;
  std::string report_;
  double module_seconds_ = 0;
};

}  // namespace qx::ctl
