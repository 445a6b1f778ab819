// Internal: the registry's files as files: opening them safely and replacing them whole. Nothing here throws or needs
// memory, because handles save the tree while they are destroyed.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/File.h"
#include "registry/TreeReader.h"

namespace qx::registry {

// Opens a regular file; anything else (a directory, a FIFO that would block for ever) counts as not to be opened. Only
// when the system cannot tell what it is, it is taken.
[[nodiscard]] file::Descriptor OpenToRead(const char* path);
// Creates the file at `path`. Whatever has that name before is removed, unless it is a directory: it may be a link that
// somebody else prepared.
[[nodiscard]] file::Descriptor CreateToWrite(const char* path);

// Bytes of the open file, or -1 when the system cannot tell.
[[nodiscard]] long long SizeOf(const file::Descriptor& file);

// Writes all of `text` into the open file, brings it to the disk and closes it. The file is readable by everybody from
// then on.
[[nodiscard]] bool WriteThrough(file::Descriptor& file, std::string_view text);

// The bytes of an open file, from where it stands.
[[nodiscard]] ByteSource BytesOf(const file::Descriptor& file);

// The size of the file at `path`, or 0 when there is none.
[[nodiscard]] std::size_t BytesAt(const char* path);
// True if `path` leads to a file that is not empty, or if `stat` fails: such a file is kept like one with content.
[[nodiscard]] bool MayHoldBytes(const char* path);

// Keeps the file at `path`, which could not be read, beside it under the name "registry.unread" as well, unless there
// is one already: the first one kept is the one that held something.
void KeepUnread(const char* path);

// Brings the names in the directory of `path` to the disk.
void SyncDirectoryOf(const char* path);

}  // namespace qx::registry
