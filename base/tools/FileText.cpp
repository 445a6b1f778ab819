#include "base/tools/FileText.h"

#include <cerrno>
#include <new>

#include "base/File.h"

namespace qx::file {

namespace {

constexpr std::size_t kTextBytesMax = std::size_t{64} << 20;

}  // namespace

std::string TextOf(const std::string& path) {
  std::string text;
  const Descriptor file = OpenRegular(path.c_str(), O_RDONLY);
  if (!file.IsOpen()) return text;
  const int error = ReadWhole(file.Number(), text, kTextBytesMax);
  if (error == ENOMEM) throw std::bad_alloc();
  if (text.size() > kTextBytesMax) text.resize(kTextBytesMax);
  return text;
}

}  // namespace qx::file
