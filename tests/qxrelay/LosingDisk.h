// A disk that loses changes that were not synced. A test program links LosingDisk.cpp in place of base/FileCalls.cpp.
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

// Which changes that were not synced are lost.
enum class Loss : std::uint8_t {
  kEverything,
  kTheLast,  // all changes after a random one
  // Each file loses all its changes, or keeps all of them. The two files of a report are treated alike. A file system
  // with a journal may keep the new name of a file without its bytes.
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

  // From now on this many changes and syncs succeed; all later ones fail. [owning thread]
  void FailAfter(int changes);
  [[nodiscard]] bool HasFailed() const;

  // Restores the directory to the state of the disk. No file below it may be open. Then all calls work again.
  // [owning thread]
  void Restart(Loss loss, std::mt19937_64& random);
};

}  // namespace qx::test
