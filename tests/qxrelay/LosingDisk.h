// A disk that loses what was not synced: a test program that links LosingDisk.cpp has it in place of
// base/FileCalls.cpp.
//
//   LosingDisk disk(dir.Path());       what is below the directory now is on the disk
//   disk.FailAfter(7);                 the power fails at the 8th change: it and all later ones fail with EIO
//   ... a process works, and ends ...
//   disk.Restart(Loss::kEverything);   the directory has only what was synced
//
// Calls go to the system, and the disk remembers each change of a file or of a directory until it is synced. A file is
// synced by fsync and fdatasync, an entry of a directory by fsync of the directory, and everything by syncfs.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace qx::test {

// What of the changes that were not synced is lost.
enum class Loss : std::uint8_t {
  kEverything,
  kTheLast,  // all changes after a random one
  // Of each file all changes or none; two files that differ in the ending .ind or .dat lose the same. File systems with
  // a journal keep a name before what is written to its file.
  kOfEachName,
  kOfSectors,  // the same for each sector and for the size of each file
};

// Threads: one thread. There is at most one such object.
class LosingDisk {
 public:
  explicit LosingDisk(const std::string& directory);
  ~LosingDisk();
  LosingDisk(const LosingDisk&) = delete;
  LosingDisk& operator=(const LosingDisk&) = delete;

  // So many changes and syncs succeed from now on. [owning thread]
  void FailAfter(int changes);
  [[nodiscard]] bool HasFailed() const;

  // The directory gets what the disk has. Nobody has a file open below it. Then everything works again. [owning thread]
  void Restart(Loss loss, std::mt19937_64& random);
};

}  // namespace qx::test
