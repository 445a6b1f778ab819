#include "tools/qxrelay/send/SenderState.h"

#include <pthread.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "base/tools/FileText.h"
#include "base/tools/ReplacedFile.h"
#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr std::string_view kIdentityMark = "qxrelay-identity 1";
constexpr std::string_view kReportMark = "qxrelay-report 1";
constexpr std::string_view kEndLine = "end\n";
constexpr const char* kMachineFile = "/etc/machine-id";
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr std::string_view kPositionsFile = "/positions";
constexpr std::string_view kOldDirectory = "/reports";
constexpr int kHexadecimal = 16;
constexpr int kDecimal = 10;

std::string Hex(std::uint64_t number) {
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(number));
  return digits;
}

std::string HexOf(const HostIdentity& identity) {
  std::string text;
  for (const std::uint8_t byte : identity) text += Hex(byte).substr(14);
  return text;
}

template <typename Number>
bool ReadNumber(std::string_view text, int base, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

bool ReadIdentityText(std::string_view text, HostIdentity& identity) {
  if (text.size() != 2 * identity.size()) return false;
  for (std::size_t i = 0; i < identity.size(); ++i) {
    if (!ReadNumber(text.substr(2 * i, 2), kHexadecimal, identity[i])) return false;
  }
  return true;
}

// Removes the text up to the next separator from the front, and returns it without the separator.
std::string_view Take(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return taken;
}

// "next 7" => "7", if the line begins with the word.
std::string_view TakeValue(std::string_view& text, std::string_view word) {
  std::string_view line = Take(text, '\n');
  return Take(line, ' ') == word ? line : std::string_view();
}

// Blocks all signals for this thread until destruction, so that a thread that starts meanwhile receives no signals.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before_);  // fails only for an unknown first argument
  }
  ~SignalsBlocked() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_ = {};
};

std::string MachineText() {
  std::string text = file::TextOf(kMachineFile);
  text.resize(std::min(text.find_first_not_of("0123456789abcdef"), text.size()));
  return text.empty() ? "unknown" : text;
}

std::optional<std::string> WriteWhole(const std::string& path, std::string_view text) {
  ReplacedFile file;
  ReplacedFile::Options options = ReplacedFile::ForOutput(true);
  options.may_be_missing = true;
  options.new_mode = kFileMode;
  ReplaceResult result = file.Begin(path, options);
  if (result.IsDone()) result = file.WriteCopy(text);
  if (result.IsDone()) result = file.Commit(false);
  if (result.IsDone()) return std::nullopt;
  return "cannot write " + path + (result.error != 0 ? std::string(": ") + std::strerror(result.error) : "");
}

// The files of reports that an earlier version wrote.
std::vector<std::string> OldFiles(const std::string& directory) {
  const std::string path = directory + std::string(kOldDirectory);
  const file::Descriptor opened = file::OpenDirectory(path.c_str());
  std::vector<std::string> files;
  if (opened.IsOpen()) (void)file::ListNames(opened.Number(), files);  // those that come before a failure
  for (std::string& name : files) name.insert(0, path + "/");
  return files;
}

bool ReadOverlap(std::string_view text, std::vector<std::uint64_t>& overlap) {
  while (!text.empty()) {
    std::uint64_t hash = 0;
    if (!ReadNumber(Take(text, ' '), kHexadecimal, hash)) return false;
    overlap.push_back(hash);
  }
  return overlap.size() <= report::kOverlapRecords;
}

// Removes the first state from the text and returns it. Its last line shows that it is complete.
std::optional<ReportState> TakeState(std::string_view& text) {
  if (Take(text, '\n') != kReportMark) return std::nullopt;
  ReportState state;
  const std::optional<std::string> report = NameOfToken(TakeValue(text, "report"));
  if (!report.has_value()) return std::nullopt;
  state.report = *report;
  const bool has_mark = ReadNumber(TakeValue(text, "incarnation"), kHexadecimal, state.mark.incarnation) &&
                        ReadNumber(TakeValue(text, "next"), kDecimal, state.mark.next) &&
                        ReadNumber(TakeValue(text, "hash"), kHexadecimal, state.mark.hash_before) &&
                        ReadNumber(TakeValue(text, "slots"), kDecimal, state.mark.ring_slots);
  if (!has_mark || !ReadOverlap(TakeValue(text, "overlap"), state.overlap)) return std::nullopt;
  if (!text.starts_with(kEndLine)) return std::nullopt;
  text.remove_prefix(kEndLine.size());
  return state;
}

void AddStates(std::string_view text, ReportStates& states) {
  while (!text.empty()) {
    std::optional<ReportState> state = TakeState(text);
    if (!state.has_value()) return;
    const std::string report = state->report;
    states.insert_or_assign(report, *std::move(state));
  }
}

}  // namespace

std::string TextOfState(const ReportState& state) {
  std::string text = std::string(kReportMark) + "\nreport " + TokenOf(state.report) + "\nincarnation " +
                     Hex(state.mark.incarnation) + "\nnext " + std::to_string(state.mark.next) + "\nhash " +
                     Hex(state.mark.hash_before) + "\nslots " + std::to_string(state.mark.ring_slots) + "\noverlap";
  for (const std::uint64_t hash : state.overlap) text += " " + Hex(hash);
  return text + "\n" + std::string(kEndLine);
}

std::optional<ReportState> StateOfText(std::string_view text) {
  std::optional<ReportState> state = TakeState(text);
  return text.empty() ? state : std::nullopt;
}

ReportStates ReadStates(const std::string& directory) {
  ReportStates states;
  const std::string text = file::TextOf(directory + std::string(kPositionsFile));
  AddStates(text, states);
  if (!text.empty()) return states;
  for (const std::string& path : OldFiles(directory)) AddStates(file::TextOf(path), states);
  return states;
}

std::optional<std::string> SenderState::Open(const std::string& directory, bool take_over) {
  directory_ = directory;
  const int made = file::MakeDirectory(directory.c_str(), kDirectoryMode);
  if (made != 0 && made != EEXIST) return "cannot create " + directory + ": " + std::strerror(made);
  // Without this sync, a power failure could lose a new directory, and --take-over would be needed. A directory that
  // this user may not sync is not new.
  if (made == 0) (void)file::SyncDirectory(file::DirectoryOf(directory).c_str());
  const std::string path = directory + "/lock";
  lock_ = file::OpenRegular(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, kFileMode);
  const int open_error = errno;
  if (!lock_.IsOpen()) return "cannot open " + path + ": " + std::strerror(open_error);
  const int error = file::TryLock(lock_.Number());
  if (error == EWOULDBLOCK) return "another sender uses " + directory;
  if (error != 0) return "cannot lock " + path + ": " + std::strerror(error);
  if (auto problem = ReadIdentity(take_over)) return problem;
  states_ = ReadStates(directory);
  has_old_form_ = file::OpenDirectory((directory + std::string(kOldDirectory)).c_str()).IsOpen();
  return std::nullopt;
}

std::optional<std::string> SenderState::ReadIdentity(bool take_over) {
  const std::string path = directory_ + "/identity";
  const std::string machine = MachineText();
  const std::string text = file::TextOf(path);
  if (text.empty()) return MakeIdentity(machine);
  std::string_view rest = text;
  const bool has_mark = Take(rest, '\n') == kIdentityMark;
  const bool is_read = has_mark && ReadIdentityText(TakeValue(rest, "identity"), identity_.identity);
  if (!is_read) return path + " is damaged: restore it, or remove it and start with --take-over";
  if (TakeValue(rest, "machine") != machine) {
    if (take_over) return MakeIdentity(machine);
    return directory_ + " was copied from another machine: remove it if both machines run, or start with --take-over";
  }
  const std::string session = file::TextOf(directory_ + "/session");
  std::string_view session_text = session;
  const bool has_session = ReadNumber(Take(session_text, '\n'), kDecimal, identity_.session);
  if (!session.empty() && !has_session) return directory_ + "/session is damaged: remove it and start with --take-over";
  return std::nullopt;
}

std::optional<std::string> SenderState::MakeIdentity(const std::string& machine) {
  const auto size = static_cast<ssize_t>(identity_.identity.size());
  if (getrandom(identity_.identity.data(), identity_.identity.size(), 0) != size)
    return "the system has no random bytes";
  return WriteWhole(directory_ + "/identity", std::string(kIdentityMark) + "\nidentity " + HexOf(identity_.identity) +
                                                  "\nmachine " + machine + "\n");
}

std::optional<std::string> SenderState::BeginSession(std::uint64_t session) {
  identity_.session = std::max(identity_.session, session) + 1;
  return WriteWhole(directory_ + "/session", std::to_string(identity_.session) + "\n");
}

ReportState& SenderState::Of(const std::string& report) {
  const auto [found, is_new] = states_.try_emplace(report);
  if (is_new) found->second.report = report;
  return found->second;
}

const ReportState* SenderState::Find(const std::string& report) const {
  const auto found = states_.find(report);
  const bool is_known = found != states_.end() && found->second.mark.incarnation != 0;
  return is_known ? &found->second : nullptr;
}

std::string SenderState::TextOfAll() {
  std::string text;
  for (const auto& [report, state] : states_) {
    if (state.mark.incarnation != 0) text += TextOfState(state);
  }
  file_bytes_ = text.size();
  return text;
}

std::optional<std::string> SenderState::Write() {
  if (IsWriting()) (void)FinishWrite();  // the write below has newer states
  tried_ = changes_;
  const std::string text = TextOfAll();
  if (auto problem = WriteWhole(directory_ + std::string(kPositionsFile), text)) return problem;
  if (has_old_form_) RemoveOldForm();
  return std::nullopt;
}

void SenderState::BeginWrite() {
  writing_change_ = changes_;
  const auto write = [path = directory_ + std::string(kPositionsFile), text = TextOfAll()] {
    return WriteWhole(path, text);
  };
  const SignalsBlocked blocked;  // the main thread receives the signals
  try {
    writing_ = std::async(is_in_background_ ? std::launch::async : std::launch::deferred, write);
  } catch (const std::system_error&) {
    writing_ = std::async(std::launch::deferred, write);  // without a thread EndWrite writes
  }
}

std::optional<std::string> SenderState::EndWrite() {
  if (!IsWriting()) return std::nullopt;
  if (writing_.wait_for(std::chrono::seconds(0)) == std::future_status::timeout) return std::nullopt;
  return FinishWrite();
}

// Waits for the write that is running.
SenderState::Problem SenderState::FinishWrite() {
  Problem problem = writing_.get();
  tried_ = writing_change_;
  if (!problem.has_value() && has_old_form_) RemoveOldForm();
  return problem;
}

// Removes the files of an earlier version. Failures are ignored: files that stay are not read any more.
void SenderState::RemoveOldForm() {
  for (const std::string& path : OldFiles(directory_)) (void)file::Remove(path.c_str());
  (void)file::Remove((directory_ + std::string(kOldDirectory)).c_str(), AT_REMOVEDIR);
  has_old_form_ = false;
}

}  // namespace qx::relay
