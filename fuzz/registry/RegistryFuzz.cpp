// Reads bytes as a registry file. Three things must hold: the tree is the one that the plain reader builds; windows of
// any size give the same tree; and a tree with values, written and read again, is the same tree.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz/support/Require.h"
#include "registry/RegistryNode.h"
#include "registry/TreeReader.h"
#include "registry/TreeWriter.h"
#include "tests/registry/PlainTree.h"

namespace {

using qx::fuzz::Demand;

std::string Text(const CRegistryNode& key) {
  std::string text;
  Demand(qx::registry::FormatTree(key, text), "the tree can be written");
  return text;
}

// Reads with the smallest window and in portions of `portion` bytes.
bool ReadInPortions(std::string_view bytes, std::size_t portion, CRegistryNode& key) {
  qx::registry::LineReader lines(
      [&bytes, portion](char* to, std::size_t size) {
        const std::size_t count = std::min({bytes.size(), size, portion});
        if (count > 0) std::memcpy(to, bytes.data(), count);
        bytes.remove_prefix(count);
        return static_cast<ssize_t>(count);
      },
      qx::registry::kLineCharsMax);
  return qx::registry::RestoreFrom(lines, key) != qx::registry::Reading::kFailed;
}

// Quirk: a line of 1023 characters or more is not read as it was written.
bool HasLongLine(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = std::min(text.find('\n'), text.size());
    if (length >= qx::registry::kLineCharsMax) return true;
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;  // fmemopen cannot open a stream of 0 bytes
  std::string bytes(reinterpret_cast<const char*>(data), size);
  FILE* stream = fmemopen(bytes.data(), bytes.size(), "r");
  if (stream == nullptr) return 0;

  CRegistryNode key;
  const bool has_values = key.restoreNode(stream);
  const std::string written = Text(key);

  rewind(stream);
  qx::test::PlainKey plain;
  Demand(plain.Read(stream) == has_values, "the plain reader agrees on whether there are values");
  Demand(plain.Text() == written, "the plain reader builds the same tree");
  fclose(stream);

  CRegistryNode in_portions;
  Demand(ReadInPortions(bytes, 1 + data[0] % 64U, in_portions) == has_values, "windows agree on the values");
  Demand(Text(in_portions) == written, "windows give the same tree");

  if (!plain.HasValues() || HasLongLine(written)) return 0;
  CRegistryNode again;
  Demand(ReadInPortions(written, SIZE_MAX, again), "what was written loads");
  Demand(Text(again) == written, "what was written and read is written the same");
  return 0;
}
