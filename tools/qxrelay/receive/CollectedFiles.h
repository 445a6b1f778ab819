// Writes the files of one report on a collector: the report, with the writer of the SDK, and its base (ReportBase.h).
//
// The position follows from the base and the count in the files. So after a kill at any moment, the next receiver finds
// the position in the files.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sdk/Writer.h"
#include "tools/qxrelay/receive/CollectorRoot.h"
#include "tools/qxrelay/receive/ReportBase.h"

namespace qx::relay {

// Threads: one thread. Owns: while it is open, the report's files and its lock: three descriptors.
// Failure: a CollectorFault. Throws std::bad_alloc.
class CollectedFiles {
 public:
  explicit CollectedFiles(std::string path) : path_(std::move(path)) {}

  static constexpr std::size_t kDescriptors = 3;

  // Opens the report, or creates it with `slots` slots, and finds its base. [owning thread]
  [[nodiscard]] CollectorFault Open(std::uint32_t slots);
  void Close() { writer_.Close(); }
  [[nodiscard]] bool IsOpen() const { return writer_.IsOpen(); }

  // How the base fits the files, as Open has found it. If it is kFits, the number of the next record is Next(). [owning
  // thread]
  [[nodiscard]] BaseFit Fit() const { return found_.fit; }
  [[nodiscard]] const ReportBase& Base() const { return found_.base; }
  [[nodiscard]] std::uint64_t Next() const { return found_.next; }
  // Whether the report has no record. [owning thread]
  [[nodiscard]] bool IsEmpty() const { return writer_.RecordCount() == 0; }

  // Writes a new base: the next record has the number `base.next`. Generation and count are set here. The base must be
  // on the disk before the next Append. [owning thread]
  [[nodiscard]] CollectorFault WriteBase(ReportBase base);
  // Writes into the base that the files contradict the messages. This remains so until the files change. [owning
  // thread]
  [[nodiscard]] CollectorFault WriteContradiction();

  // Fails if the files have changed since the last call. [owning thread]
  [[nodiscard]] CollectorFault CheckUntouched();
  // Appends records. After a failure, Next shows how many are stored. [owning thread]
  [[nodiscard]] CollectorFault Append(std::span<const std::string_view> records);
  // Makes sure that the header in the file counts the records that Append has stored. Nothing may be acknowledged
  // before this. [owning thread]
  [[nodiscard]] CollectorFault Confirm();

  // The hash of the record of this number; 0 if the report does not have it. [owning thread]
  [[nodiscard]] std::uint64_t HashOf(std::uint64_t number);
  // The hash of the newest record, whatever its number. [owning thread]
  [[nodiscard]] std::uint64_t NewestHash();

 private:
  [[nodiscard]] CollectorFault ReadBases();
  [[nodiscard]] std::uint64_t HashOfAge(std::uint64_t age);
  [[nodiscard]] CollectorFault Save(ReportBase base);

  std::string path_;
  Writer writer_;
  BaseLines lines_;
  FoundBase found_;
  std::uint64_t newest_hash_ = 0;  // of the record before newest_next_
  std::uint64_t newest_next_ = 0;
};

// Converts a failure of the SDK.
[[nodiscard]] CollectorFault FaultOf(const Error& error);

}  // namespace qx::relay
