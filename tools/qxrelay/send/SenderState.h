// Reads and writes the state directory of a sender: its identity, and up to which record each report was sent.
//
//   identity        "qxrelay-identity 1", the identity (32 hexadecimal digits), and the identity of the machine
//   session         the number of the last start
//   lock            locked by the one sender that uses the directory
//   positions       of each report "qxrelay-report 1", its name, its mark, and the hashes of the last 32 records
//
// Earlier versions had a file reports/TOKEN for each report instead. These files are read, and removed when `positions`
// is written.
//
// The newest message of the stream also has the position, and has priority over the state. If the directory is lost,
// the sender gets a new identity, and needs --take-over once. Every file is replaced as a whole and synced.
#pragma once

#include <cstdint>
#include <future>
#include <map>
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

// Converts the state of a report to text, and back. Unset for a text that TextOfState does not return. [any thread]
[[nodiscard]] std::string TextOfState(const ReportState& state);
[[nodiscard]] std::optional<ReportState> StateOfText(std::string_view text);

// Reads the states of all reports in the directory, by name; damaged states are left out. [any thread]
using ReportStates = std::map<std::string, ReportState>;
[[nodiscard]] ReportStates ReadStates(const std::string& directory);

// Threads: one thread, and one more for a write in the background.
// Owns: the lock of the directory, the states of all reports, and the thread, for which the destructor waits.
// Failure: a text for the operator. Throws std::bad_alloc.
class SenderState {
 public:
  // Creates what is missing, with mode 0700, and locks the directory. A directory that was copied from another machine
  // is refused unless `take_over` is true: then it gets a new identity. [owning thread]
  [[nodiscard]] std::optional<std::string> Open(const std::string& directory, bool take_over);

  [[nodiscard]] const SenderIdentity& Identity() const { return identity_; }

  // Begins a session with a number above `session` and above all earlier sessions of this directory. [owning thread]
  [[nodiscard]] std::optional<std::string> BeginSession(std::uint64_t session);

  // The state of the report, which the caller may change; that of an unknown report has no incarnation. The reference
  // is valid as long as this object. [owning thread]
  [[nodiscard]] ReportState& Of(const std::string& report);
  // The state of the report; null if nothing is known of it. [owning thread]
  [[nodiscard]] const ReportState* Find(const std::string& report) const;

  // Must be called after a state was changed. Returns the number of the change. [owning thread]
  std::uint64_t Changed() { return ++changes_; }
  [[nodiscard]] bool HasChanges() const { return tried_ != changes_; }
  // Whether the write of this change has succeeded or failed. [owning thread]
  [[nodiscard]] bool IsTried(std::uint64_t change) const { return change <= tried_; }
  // The size of `positions` when it was last written. [owning thread]
  [[nodiscard]] std::size_t FileBytes() const { return file_bytes_; }
  // Writes all states and syncs them. Returns why it failed; unset after a success. [owning thread]
  [[nodiscard]] std::optional<std::string> Write();

  // From now on BeginWrite writes in the background. A busy disk can take a second for a sync, and no record should
  // wait for it. Without this call, BeginWrite writes before it returns. [owning thread]
  void WriteInBackground() { is_in_background_ = true; }
  // Begins a write of all states. Must not be called while a write is running. [owning thread]
  void BeginWrite();
  [[nodiscard]] bool IsWriting() const { return writing_.valid(); }
  // Ends the write if it is complete. Returns why it failed; unset after a success. [owning thread]
  [[nodiscard]] std::optional<std::string> EndWrite();

 private:
  using Problem = std::optional<std::string>;

  [[nodiscard]] std::optional<std::string> ReadIdentity(bool take_over);
  [[nodiscard]] std::optional<std::string> MakeIdentity(const std::string& machine);
  [[nodiscard]] std::string TextOfAll();
  [[nodiscard]] Problem FinishWrite();
  void RemoveOldForm();

  std::string directory_;
  file::Descriptor lock_;
  SenderIdentity identity_;
  ReportStates states_;
  std::uint64_t changes_ = 0;
  std::uint64_t tried_ = 0;
  std::size_t file_bytes_ = 0;
  bool has_old_form_ = false;
  bool is_in_background_ = false;
  std::uint64_t writing_change_ = 0;
  std::future<Problem> writing_;  // valid while a write is running
};

}  // namespace qx::relay
