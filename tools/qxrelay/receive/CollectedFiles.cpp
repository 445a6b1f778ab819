#include "tools/qxrelay/receive/CollectedFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "base/OwnedLinks.h"
#include "reportfile/tools/RecordOverlap.h"

namespace qx::relay {

namespace {

constexpr mode_t kBaseMode = 0644;
// A new base is written long before the 32-bit count of the files becomes ambiguous.
constexpr std::uint32_t kAheadMax = 0x40000000;

std::string BaseError(const std::string& path, int error) {
  return "cannot use " + path + std::string(kBaseSuffix) + ": " + std::strerror(error);
}

}  // namespace

CollectorFault FaultOf(const Error& error) {
  if (!error.Failed()) return {};
  if (error.code == ErrorCode::kNoMemory) return {.kind = CollectorFault::Kind::kSystem, .text = error.text};
  if (error.code == ErrorCode::kSystem) return FaultOf(error.text, error.system_error);
  if (error.code == ErrorCode::kOtherWriter) return {.kind = CollectorFault::Kind::kBusy, .text = error.text};
  return {.kind = CollectorFault::Kind::kReport, .text = error.text};
}

CollectorFault CollectedFiles::Open(std::uint32_t slots) {
  found_ = {};
  newest_next_ = 0;
  if (CollectorFault fault = FaultOf(writer_.Open(path_, slots, WriterCheck::kLock)); fault.Failed()) return fault;
  if (CollectorFault fault = ReadBases(); fault.Failed()) {
    writer_.Close();
    return fault;
  }
  found_ = FindBase(lines_, writer_.RecordCount());
  return {};
}

CollectorFault CollectedFiles::ReadBases() {
  lines_ = {};
  const std::string path = path_ + std::string(kBaseSuffix);
  const file::Descriptor file = file::OpenThroughOwnedLinks(path.c_str(), O_RDONLY, 0, file::TrustedLinks::kToWrite);
  const int open_error = errno;
  if (!file.IsOpen())
    return open_error == ENOENT ? CollectorFault{} : FaultOf(BaseError(path_, open_error), open_error);
  char text[2 * kBaseLineBytes];
  const file::Progress progress = file::ReadAt(file.Number(), 0, text, sizeof text);
  if (progress.Failed()) return FaultOf(BaseError(path_, progress.error), progress.error);
  lines_ = BasesOfText({text, progress.bytes});
  return {};
}

CollectorFault CollectedFiles::WriteBase(ReportBase base) {
  if (CollectorFault fault = Save(base); fault.Failed()) return fault;
  found_.fit = BaseFit::kFits;
  found_.next = base.next;
  return {};
}

CollectorFault CollectedFiles::WriteContradiction() {
  ReportBase base = found_.base;
  base.incarnation = 0;
  if (CollectorFault fault = Save(base); fault.Failed()) return fault;
  found_.fit = BaseFit::kContradicted;
  return {};
}

CollectorFault CollectedFiles::Save(ReportBase base) {
  base.count = writer_.RecordCount();
  for (const std::optional<ReportBase>& line : lines_) {
    if (line.has_value()) base.generation = std::max(base.generation, line->generation);
  }
  ++base.generation;
  const std::size_t place = PlaceOfNextBase(lines_, found_.base);
  const std::string path = path_ + std::string(kBaseSuffix);
  file::Descriptor file =
      file::OpenThroughOwnedLinks(path.c_str(), O_RDWR | O_CREAT, kBaseMode, file::TrustedLinks::kToWrite);
  int error = file.IsOpen() ? 0 : errno;
  if (error == 0) {
    error = file::WriteAt(file.Number(), static_cast<std::int64_t>(place * kBaseLineBytes), TextOfBase(base)).error;
  }
  if (error == 0) error = file.Close();
  if (error != 0) return FaultOf(BaseError(path_, error), error);
  lines_[place] = base;
  found_.base = base;
  return {};
}

CollectorFault CollectedFiles::CheckUntouched() { return FaultOf(writer_.CheckUntouched()); }

CollectorFault CollectedFiles::Append(std::span<const std::string_view> records) {
  if (records.empty()) return {};
  if (writer_.RecordCount() - found_.base.count > kAheadMax) {
    ReportBase base = found_.base;
    base.next = found_.next;
    if (CollectorFault fault = WriteBase(base); fault.Failed()) return fault;
  }
  const std::uint32_t before = writer_.RecordCount();
  const Error error = writer_.AppendCopies(records);
  const std::uint32_t stored = writer_.RecordCount() - before;
  found_.next += stored;
  if (stored > 0) {
    newest_next_ = found_.next;
    newest_hash_ = report::RecordHash(records[stored - 1]);
  }
  return FaultOf(error);
}

CollectorFault CollectedFiles::Confirm() { return FaultOf(writer_.Confirm()); }

std::uint64_t CollectedFiles::HashOf(std::uint64_t number) {
  if (found_.fit != BaseFit::kFits || number >= found_.next || number < found_.base.next) return 0;
  if (number + 1 == newest_next_ && newest_next_ == found_.next) return newest_hash_;
  return HashOfAge(found_.next - number - 1);
}

std::uint64_t CollectedFiles::NewestHash() { return HashOfAge(0); }

std::uint64_t CollectedFiles::HashOfAge(std::uint64_t age) {
  std::string record;
  if (age > std::numeric_limits<std::uint32_t>::max()) return 0;
  if (writer_.ReadBack(static_cast<std::uint32_t>(age), record).Failed()) return 0;
  return report::RecordHash(record);
}

}  // namespace qx::relay
