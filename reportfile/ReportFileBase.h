// The record store of a report: a bounded log of text records in a data file, with a binary index file next to it.
//
// A writer appends with writeLine. Once all slots of the ring are in use, each new record replaces the oldest one.
// After a fixed number of records the data file is written from its start again, so neither file grows without bound. A
// reader opens the files read-only and fetches records by slot. docs/report-store.md maps the bytes and describes what
// readers in other processes may see. Not here: protection against a second writer, repair of damaged files, and any
// check whether the text of an old slot was overwritten.
#pragma once

#if __cplusplus < 202002L
#error "QXRemConXfer needs C++20: compile with -std=c++20, or use the C interface sdk/qxreport.h."
#endif

#include <cstdio>
#include <string>

#include "base/CriticalSection.h"
#include "reportfile/StoreFormat.h"

namespace qx::report {
class RecordReader;
class RecordWriter;
}  // namespace qx::report

// One report's store, open for writing, open for reading, or closed. Exported: the agents that keep reports use it.
//
// Threads: writeLine and readLine may be called from several threads at the same time; everything else belongs to the
// thread that owns the object, while no other thread uses the object. The lock protects this object only, not the files
// against other processes.
// Owns: both streams. They only own the descriptors; all access is by positioned reads and writes on these.
// Failure: a false or zero result, with errno set by the system call that failed, or ENOMEM; the store traces no
// errors. No exception leaves it; the forced unwinding of a cancelled thread passes.
class [[gnu::visibility("default")]] CReportFileBase {
 public:
  CReportFileBase();
  ~CReportFileBase();
  CReportFileBase(const CReportFileBase&) = delete;
  CReportFileBase& operator=(const CReportFileBase&) = delete;

  // Opens `path`.ind and `path`.dat for reading and writing. If both files exist, they keep their ring size, and
  // `maxRecords` is ignored. If either is missing, the store is started over, with mode 0644 and `maxRecords` slots (0:
  // 1,073,741,823), and the content of the other file is lost. The header of a new store is written with its first
  // record. Takes the advisory lock of the index file if it is free. False: a null or empty path (nothing happens); a
  // file that exists but cannot be opened or read (neither file is changed: try again later, do not delete it); or one
  // that cannot be created. errno is that of the first file that failed: EINVAL for what is not a regular file, ELOOP
  // for a link that is not trusted (base/OwnedLinks.h). Nothing is open then. A store that the object has open is
  // closed first, except for a null or empty path. [owning thread]
  [[nodiscard]] bool Open(const char* path, unsigned int maxRecords);

  // Opens an existing store for reading and reads its header, once: records written later are seen after another
  // OpenRead. An index file shorter than a header reads as an empty store of 10000 slots. False: as for Open, with
  // ENOENT for a missing file; the file that could be opened stays open until Close, except after a read error. The
  // header in memory stays as it was. [owning thread]
  [[nodiscard]] bool OpenRead(const char* path);

  // Closes whatever is open; the header in memory is kept. Always true. [owning thread]
  bool Close();

  // Appends `text` (null: the empty text) as one record, replacing the oldest one if the ring is full. Returns true
  // once the record is in the data file and its slot in the index file. False leaves header and slots unchanged; bytes
  // of the text may be in the data file, where nothing points at them. [any thread]
  [[nodiscard]] bool writeLine(const char* text);

  // Reads the record in `slot` up to and including its first line feed, so normally with its "\r
  // ". A byte 0xFF also ends the record, and is part of it. The end of the file reads as such a byte. A NUL ends the
  // record, and is not part of it. False, with `out` unchanged: the slot is not in use, the store is not open, or a
  // read failed; a later call may succeed. [any thread]
  [[nodiscard]] bool readLine(std::string & out, unsigned int slot);

  // The size of the data file in bytes, 0 when it is not open. [owning thread]
  long GetDataFileSize();

  // Prints every record, oldest first, as its age, "::" and its text, then a line "===", to standard output. For a
  // record that cannot be read, the text of the previous one is printed. If memory runs out, the rest is left out.
  // [owning thread]
  void printAllRecords();

  // Copies everything in the directory `backupPath` into the report directory that the registry names, over what is
  // there. Then deletes `backupPath` with everything in it but its hidden entries, even if the copy failed: a restore
  // is attempted once. docs/directories.md has the rules of both steps. Static; needs no store. True: the copy
  // succeeded, or there was no backup. False: the copy failed, and errno is its error; or nothing was copied or
  // deleted, because no report directory is known, the backup cannot be listed, or deleting it would delete the report
  // directory (EINVAL). [any thread]
  static bool RestoreReportDataFiles(const std::string& backupPath);

  // Makes no backup and always returns false. Only the trace says why. [any thread]
  static bool BackupReportDataFiles(const std::string& backupPath);

  // The operations on the index file that the functions above use. They take no lock.

  // Reads the header into memory; a file that is too short leaves it as it was, with result 0. -1: the index file is
  // not open, or cannot be read. [owning thread]
  int readPositions();

  // Writes the header at the start of the index file: 0, or -1 if it could not be written whole. [owning thread]
  int writePositionsToFile();

  // Writes the data file offset `position` into `slot`: true if it was written whole. [owning thread]
  [[nodiscard]] bool setPositionInIndexFile(unsigned int slot, unsigned int position);

  // The data file offset in `slot`; 0 if fewer than four bytes of it can be read. [owning thread]
  [[nodiscard]] unsigned int getPositionFromIndexFile(unsigned int slot);

  // The header in memory, as the last open or append left it; valid as long as the object. [owning thread]
  [[nodiscard]] const qx::report::IndexHeader& header() const { return header_; }

 private:
  friend class qx::report::RecordReader;
  friend class qx::report::RecordWriter;

  [[nodiscard]] bool CloseAfterReadError();
  [[nodiscard]] bool IsOpen() const { return data_file_ != nullptr && index_file_ != nullptr; }

  // Order is interface: agents embed this layout.
  std::FILE* data_file_ = nullptr;
  std::FILE* index_file_ = nullptr;
  qx::report::IndexHeader header_;
  CCriticalSection lock_;
};
