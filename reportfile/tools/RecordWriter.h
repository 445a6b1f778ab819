// Appends many records at once to an open store.
//
// The records are split into parts: a part ends where the ring wraps or the data file restarts, and after about 256 KiB
// of text. Each part is written with three writes, in the same order as a single record: the texts with the end marker
// after them, the slots, the header. The files are byte for byte those that CReportFileBase::writeLine leaves for the
// same records.
//
// Only a crash or kill between the writes of slots and header has another effect: in a full ring, the slots of the
// oldest records then already lead to all new records of the part, and the header does not count these.
// FinishInterrupted, called by the next writer, counts them.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class CReportFileBase;

namespace qx::report {

struct IndexHeader;
struct UncountedPart;

// The largest size of the texts in a part of more than one record. The texts are copied into one buffer, which then
// fits into the processor's cache.
inline constexpr std::int64_t kPartBytesMax = std::int64_t{256} * 1024;

// The number of texts, from the first on, that are records now, and why the next one is not.
struct AppendedRecords {
  std::size_t stored = 0;
  int error = 0;  // the error number; 0: all are stored
};

// Threads: Append may be called from several threads at the same time; it holds the store's lock. The rest belongs to
// one thread.
// Owns: buffers of at most 300 KiB. Borrows the store, which must outlive it.
// Failure: an error number. A record that is not stored leaves header and slots unchanged, as in writeLine.
class RecordWriter {
 public:
  explicit RecordWriter(CReportFileBase& store) : store_(store) {}

  // Appends the texts in order. The caller checks that no text has a line feed, a NUL or a byte 0xFF: such a text is
  // stored, but readers get only a part of it. EBADF for a store that is not open, ENOMEM if memory runs out. [any
  // thread]
  [[nodiscard]] AppendedRecords Append(std::span<const std::string_view> texts);

  // If the index file has no header yet, sets the ring to `slots` slots and writes the header. A store with a header is
  // unchanged. Returns 0 or the error number. [owning thread]
  [[nodiscard]] int StartRing(std::uint32_t slots);

  // Counts the records of a part that a killed writer left in a full ring: their slots were written, and the header was
  // not. Returns the number of records, or 0 if the files cannot be read. Only the one writer of the store may call
  // this. [owning thread]
  [[nodiscard]] std::uint32_t FinishInterrupted();

  // True if these are the files that the store has open. [any thread]
  [[nodiscard]] bool IsOpenOn(const struct stat& index, const struct stat& data) const;
  // True if the header in the index file equals the one in memory, so that no other writer has changed it. [any thread]
  [[nodiscard]] bool HasHeaderInFile() const;
  // Writes the header if the one in the index file differs from the one in memory. This is for the last append: an
  // append does not fail if its write of the header fails, because the next append writes the header again. Returns 0
  // or the error number. [any thread]
  [[nodiscard]] int ConfirmHeader();

  // The record of this age, 0 being the newest. False: no record has this age, or it cannot be read. [any thread]
  [[nodiscard]] bool ReadBack(std::uint32_t age, std::string& record) const;

 private:
  [[nodiscard]] AppendedRecords AppendPart(std::span<const std::string_view> texts);
  [[nodiscard]] AppendedRecords AppendFirst(std::string_view text);
  [[nodiscard]] std::int64_t LayOut(std::span<const std::string_view> texts);
  [[nodiscard]] std::int64_t EndOf(std::size_t record, std::int64_t end) const;
  void Count(std::uint32_t records, std::int64_t marker_offset);
  [[nodiscard]] UncountedPart FindUncounted() const;
  [[nodiscard]] bool IsMarkerAt(std::int64_t offset) const;

  CReportFileBase& store_;
  std::vector<std::uint32_t> offsets_;  // of the records of the part
  std::string bytes_;                   // their texts and line ends
};

}  // namespace qx::report
