#include "reportfile/DirectoryListing.h"

#include <cerrno>
#include <cstring>

#include "base/File.h"

namespace qx::report {

Listing ListDirectory(const std::string& path) {
  Listing listing;
  const file::Descriptor directory = file::OpenDirectory(path.c_str());
  listing.error = directory.IsOpen() ? 0 : errno;
  listing.is_open = directory.IsOpen();
  if (listing.is_open) listing.error = file::ListNames(directory.Number(), listing.names);
  return listing;
}

// The C library's texts are constant, or one for each thread: nothing is shared.
const char* ErrorText(int error) { return std::strerror(error); }

}  // namespace qx::report
