// Internal: the registry's files as files: opening them safely and replacing them whole. Nothing here throws or needs
// memory, because handles save the tree while they are destroyed.
#pragma once

#include <cstddef>
#include <string_view>

#include "registry/TreeReader.h"

namespace qx::registry {

// A file descriptor, closed at the end of the scope.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.number_) { other.number_ = -1; }
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() { (void)Close(); }

  [[nodiscard]] bool IsOpen() const { return number_ >= 0; }
  [[nodiscard]] int Number() const { return number_; }
  // False when the system reports that something written could not be kept.
  bool Close();

 private:
  int number_;
};

// Opens a regular file; anything else (a directory, a FIFO that would block for ever) counts as not to be opened. Only
// when the system cannot tell what it is, it is taken.
[[nodiscard]] Descriptor OpenToRead(const char* path);
// The same, created if it is missing and emptied.
[[nodiscard]] Descriptor OpenToWrite(const char* path);

// Bytes of the open file, or -1 when the system cannot tell.
[[nodiscard]] long long SizeOf(const Descriptor& file);

// Writes all of `text` into the open file, brings it to the disk and closes it. The file is readable by everybody from
// then on.
[[nodiscard]] bool WriteThrough(Descriptor& file, std::string_view text);

// The bytes of an open file, from where it stands.
[[nodiscard]] ByteSource BytesOf(const Descriptor& file);

// The size of the file at `path`, or 0 when there is none.
[[nodiscard]] std::size_t BytesAt(const char* path);
// True when `path` leads to a file with something in it.
[[nodiscard]] bool HoldsBytes(const char* path);

// Keeps the file at `path`, which could not be read, beside it under the name "registry.unread" as well, unless there
// is one already: the first one kept is the one that held something.
void KeepUnread(const char* path);

// Brings the names in the directory of `path` to the disk.
void SyncDirectoryOf(const char* path);

}  // namespace qx::registry
