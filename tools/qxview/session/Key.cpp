#include "tools/qxview/session/Key.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <vector>

#include "base/File.h"

namespace qx::view {

namespace {

constexpr mode_t kKeyMode = 0600;
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kOfOthers = 0077;

std::string HexOf(std::span<const unsigned char> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) text.append({kDigits[byte >> 4U], kDigits[byte & 0xFU]});
  return text;
}

std::string Because(const std::string& what, int error) { return what + ": " + std::strerror(error); }

// Makes the directory and those above it. Failures are ignored: then the file cannot be made either, and this is
// reported.
void MakeDirectories(const std::string& directory) {
  const std::string parent = file::DirectoryOf(directory);
  struct stat status = {};
  if (parent != directory && file::StatusOf(parent.c_str(), status) != 0) MakeDirectories(parent);
  (void)file::MakeDirectory(directory.c_str(), kDirectoryMode);
}

// Why the key is refused; empty if only the process's user can read and write it.
std::string WhatIsWrong(const std::string& path, const file::Descriptor& key) {
  struct stat status = {};
  if (const int error = file::StatusOf(key.Number(), status); error != 0) return Because("cannot read " + path, error);
  if (status.st_uid != geteuid()) return path + " belongs to another user; remove it, or name another --state";
  if ((status.st_mode & kOfOthers) != 0) {
    return "other users may read or write " + path + "; remove it, and qxview makes a new one";
  }
  return {};
}

LoadedKey ReadKey(const std::string& path, const file::Descriptor& key) {
  LoadedKey loaded;
  loaded.problem = WhatIsWrong(path, key);
  if (!loaded.problem.empty()) return loaded;
  const file::Progress read = file::ReadAt(key.Number(), 0, loaded.bytes.data(), loaded.bytes.size());
  if (read.Failed()) loaded.problem = Because("cannot read " + path, read.error);
  const bool is_short = loaded.problem.empty() && read.bytes != loaded.bytes.size();
  if (is_short) loaded.problem = path + " is no key; remove it, and qxview makes a new one";
  return loaded;
}

LoadedKey MakeKey(const std::string& path) {
  LoadedKey made;
  if (gnutls_rnd(GNUTLS_RND_KEY, made.bytes.data(), made.bytes.size()) != 0) {
    made.problem = "the system has no random numbers";
    return made;
  }
  const std::string_view bytes(reinterpret_cast<const char*>(made.bytes.data()), made.bytes.size());
  file::Descriptor key = file::Open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kKeyMode);
  int error = key.IsOpen() ? 0 : errno;
  if (error == 0) error = file::WriteAt(key.Number(), 0, bytes).error;
  if (error == 0) error = file::Sync(key.Number());
  if (key.IsOpen() && error != 0) (void)file::Remove(path.c_str());
  if (error != 0) made.problem = Because("cannot make " + path, error);
  return made;
}

}  // namespace

LoadedKey LoadKey(const std::string& directory) {
  MakeDirectories(directory);
  const std::string path = directory + "/key";
  errno = 0;
  const file::Descriptor key = file::OpenRegular(path.c_str(), O_RDONLY | O_NOFOLLOW);
  const int error = errno;
  if (key.IsOpen()) return ReadKey(path, key);
  if (error == ENOENT) return MakeKey(path);
  LoadedKey refused;
  refused.problem = Because("cannot read " + path, error);
  return refused;
}

std::string MacOf(const KeyBytes& key, std::string_view text) {
  std::array<unsigned char, 32> mac = {};
  const int error = gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), text.data(), text.size(), mac.data());
  return error == 0 ? HexOf(mac) : std::string();
}

std::string RandomText(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  return gnutls_rnd(GNUTLS_RND_KEY, random.data(), random.size()) == 0 ? HexOf(random) : std::string();
}

bool IsEqualSecret(std::string_view left, std::string_view right) {
  return left.size() == right.size() && gnutls_memcmp(left.data(), right.data(), left.size()) == 0;
}

}  // namespace qx::view
