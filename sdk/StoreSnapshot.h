// Internal: reads the records of a report at one moment, and decides for each record whether its text is whole.
//
// A snapshot keeps the header and the offsets of all slots. These show where each record must end: at the beginning of
// the next record; the newest one at the end marker. A text that ends elsewhere is not the one that was appended. After
// the texts of a window are read, header and slots are read again: so records that a writer has replaced meanwhile are
// not returned as whole.
//
// The files stay open from one snapshot to the next. They are opened again if the path leads to other files.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "sdk/Reader.h"

namespace qx::sdk {

// One of the two files, open for reading.
//
// Threads: one thread. Owns: the descriptor. Failure: an error number. Throws std::bad_alloc.
class KeptFile {
 public:
  explicit KeptFile(std::string path) : path_(std::move(path)) {}

  // Opens the file to which the path leads now, unless it is open already. `was_opened` becomes true if this opens a
  // file. [owning thread]
  [[nodiscard]] int Follow(bool& was_opened);

  // True if the path leads to another file, or to no file. [owning thread]
  [[nodiscard]] bool IsReplaced() const;
  // True if IsReplaced is true, or if the file was written since Follow, as far as size and time show. [owning thread]
  [[nodiscard]] bool IsTouched() const;

  // Reads up to `size` bytes. [owning thread]
  [[nodiscard]] file::Progress ReadAt(std::int64_t offset, void* to, std::size_t size) const {
    return file::ReadAt(file_.Number(), offset, to, size);
  }
  [[nodiscard]] std::int64_t Size() const;
  [[nodiscard]] int Number() const { return file_.Number(); }

 private:
  std::string path_;
  file::Descriptor file_;
  struct stat status_ = {};  // at the last Follow
};

// Threads: one thread.
// Owns: the open files; four bytes for each record, at most 256 MiB; about 350 KiB for a window of texts.
// Failure: an Error. Throws std::bad_alloc.
class StoreSnapshot {
 public:
  explicit StoreSnapshot(const std::string& path);

  // Takes a new snapshot of the files to which the path leads now. After an error the snapshot has no records. [owning
  // thread]
  Error Take();

  // The number of records. Records that the header does not count are left out; so are the oldest records whose slots
  // they have taken.
  [[nodiscard]] std::uint32_t Count() const { return static_cast<std::uint32_t>(offsets_.size()); }
  // The header of the snapshot. It may count more records than Count(). [owning thread]
  [[nodiscard]] const report::IndexHeader& Header() const { return header_; }

  // Reads the records from `age` on (0 is the oldest one): at least one, at most `count_max`, and at most about 256 KiB
  // of text if there is more than one. Empty after the last record. The records are valid until the next call. [owning
  // thread]
  Error Read(std::uint32_t age, std::uint32_t count_max, std::span<const RecordView>& records);

  // True if there may be records that are not in the snapshot. [owning thread]
  [[nodiscard]] bool HasMoved() const;

 private:
  [[nodiscard]] Error TakeOnce(bool& is_steady);
  [[nodiscard]] Error OpenFiles(bool& was_opened);
  [[nodiscard]] Error CheckHeader() const;
  [[nodiscard]] file::Progress ReadHeader(report::IndexHeader& header) const;
  [[nodiscard]] int ReadSlots(std::uint32_t slot, std::span<std::uint32_t> offsets) const;
  [[nodiscard]] int ReadAllSlots();
  void DropUncounted();
  [[nodiscard]] bool IsMarkerAt(std::int64_t offset) const;

  [[nodiscard]] std::uint32_t SlotOf(std::uint32_t age) const;
  [[nodiscard]] std::int64_t EndOf(std::uint32_t age) const;
  [[nodiscard]] std::uint32_t RunFrom(std::uint32_t age, std::uint32_t count_max) const;
  [[nodiscard]] int ReadTexts(std::uint32_t age, std::uint32_t count);
  [[nodiscard]] bool TakeWhole(std::uint32_t age, std::uint32_t count, std::string_view window);
  [[nodiscard]] int TakeEach(std::uint32_t age, std::uint32_t count, std::string_view window);
  [[nodiscard]] std::string_view ReadWindow(std::int64_t begin, std::int64_t end);
  void CheckAfterReading(std::uint32_t age);
  [[nodiscard]] std::int64_t OverwrittenTo(std::uint32_t age, const report::IndexHeader& now) const;

  std::string path_;
  KeptFile index_;
  KeptFile data_;
  report::IndexHeader header_;
  std::uint32_t uncounted_ = 0;         // the number of new records that the header does not count ...
  std::int64_t uncounted_end_ = 0;      // ... and where their texts end
  std::uint32_t old_round_ = 0;         // the number of records of the round before the last restart
  std::vector<std::uint32_t> offsets_;  // of the records, oldest first

  // The result of the last Read.
  std::vector<RecordView> records_;
  std::unique_ptr<char[]> window_;      // their texts ...
  std::deque<std::string> long_texts_;  // ... and those that are not in the window
  std::vector<std::uint32_t> slots_now_;
};

}  // namespace qx::sdk
