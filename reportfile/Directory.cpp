#include "reportfile/Directory.h"

#include <cerrno>

#include "debug/Debug.h"
#include "reportfile/Operation.h"
#include "reportfile/TreeCopy.h"
#include "reportfile/TreeRemoval.h"

namespace {

bool IsAbsolute(const char* path) { return path != nullptr && *path == '/'; }

// True if the operation succeeds. Otherwise its error number is in errno.
template <typename Operation>
bool Succeeds(const Operation& operation) {
  const int error = qx::report::ErrorOfOperation(operation);
  if (error != 0) errno = error;
  return error == 0;
}

}  // namespace

bool CDirectory::CopyDir(const char* source, const char* destination, const char* pattern, bool overwrite) {
  if (!IsAbsolute(source) || !IsAbsolute(destination)) {
    QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Only absolute paths are accepted.");
    errno = EINVAL;
    return false;
  }
  return Succeeds([&] { return qx::report::TreeCopy(pattern, overwrite).Run(source, destination); });
}

bool CDirectory::RemoveDir(const char* directory, bool removeParent) {
  if (directory == nullptr || *directory == '\0') {
    QX_TRACE(2, "\nCDirectory          : Remove directory \"%s\"", directory != nullptr ? directory : "(null)");
    errno = EINVAL;
    return false;
  }
  return Succeeds([&] { return qx::report::TreeRemoval().Run(directory, removeParent); });
}
