// Internal: opens the registry's files safely and replaces them whole. Nothing here throws or needs
// memory, because handles save the tree while they are destroyed.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/File.h"
#include "registry/TreeReader.h"

namespace qx::registry {

// Opens a regular file. Anything else (a directory, a FIFO without a writer) counts as a failed open. If `fstat` fails,
// the file is accepted.
[[nodiscard]] file::Descriptor OpenToRead(const char* path);
// Creates the file at `path`. An existing file of this name, which may be a link that another user prepared, is
// removed; a directory is not removed.
[[nodiscard]] file::Descriptor CreateToWrite(const char* path);

// Bytes of the open file, or -1 if `fstat` fails.
[[nodiscard]] long long SizeOf(const file::Descriptor& file);

// Writes all of `text` into the open file, syncs it and closes it. Its mode becomes 0644.
// False if one of these fails.
[[nodiscard]] bool WriteThrough(file::Descriptor& file, std::string_view text);

// A source of the bytes of an open file, from its own position on.
[[nodiscard]] ByteSource BytesOf(const file::Descriptor& file);

// The size of the file at `path`, or 0 if there is no file.
[[nodiscard]] std::size_t BytesAt(const char* path);
// True if `path` leads to a file that is not empty, or if `stat` fails with another error than a missing file: then the
// file may have content.
[[nodiscard]] bool MayHoldBytes(const char* path);

// Links the file at `path`, which could not be read, to the name "registry.unread" in its directory. Does nothing if
// this name exists already: the first unread file is the important one.
void KeepUnread(const char* path);

// Syncs the directory of `path`.
void SyncDirectoryOf(const char* path);

}  // namespace qx::registry
