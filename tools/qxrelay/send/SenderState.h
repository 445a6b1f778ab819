// What a sender keeps in its state directory: who it is, and where each report was.
//
//   identity        "qxrelay-identity 1", the identity (32 hexadecimal digits), and that of the machine it was made on
//   session         the number of the last start
//   lock            locked by the one sender that uses the directory
//   reports/TOKEN   "qxrelay-report 1", the report's name, its mark, and the hashes of the last 32 records
//
// The newest message in the stream is the other copy of a position, and the one that counts. A directory that is lost
// costs a new identity, for which --take-over is needed once. Every file is replaced as a whole and synced.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/File.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/send/Place.h"

namespace qx::relay {

struct SenderIdentity {
  HostIdentity identity = {};
  std::uint64_t session = 0;
};

struct ReportState {
  std::string report;
  Mark mark;
  std::vector<std::uint64_t> overlap;  // hashes of the last sent records, oldest first

  friend bool operator==(const ReportState&, const ReportState&) = default;
};

// The text of a report's state, and back. Unset for what is not such a text. [any thread]
[[nodiscard]] std::string TextOfState(const ReportState& state);
[[nodiscard]] std::optional<ReportState> StateOfText(std::string_view text);

// Threads: one thread. Owns: the lock of the directory.
// Failure: a text for the operator. Throws std::bad_alloc.
class SenderState {
 public:
  // Creates what is missing, with mode 0700, and locks the directory. A directory that was copied from another machine
  // is refused unless `take_over` is true: then it gets a new identity. [owning thread]
  [[nodiscard]] std::optional<std::string> Open(const std::string& directory, bool take_over);

  [[nodiscard]] const SenderIdentity& Identity() const { return identity_; }

  // Begins a session that is later than `session` and every earlier one of this directory. [owning thread]
  [[nodiscard]] std::optional<std::string> BeginSession(std::uint64_t session);

  // Unset if it is missing or cannot be read. [owning thread]
  [[nodiscard]] std::optional<ReportState> Load(const std::string& report) const;
  [[nodiscard]] std::optional<std::string> Save(const ReportState& state) const;

 private:
  [[nodiscard]] std::optional<std::string> ReadIdentity(bool take_over);
  [[nodiscard]] std::optional<std::string> MakeIdentity(const std::string& machine);
  [[nodiscard]] std::string PathOf(const std::string& report) const;

  std::string directory_;
  file::Descriptor lock_;
  SenderIdentity identity_;
};

}  // namespace qx::relay
