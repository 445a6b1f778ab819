// Runs a fuzz entry over every file of the given directories; and for small files also over every prefix and some
// changes of single bytes. So an ordinary test run repeats what fuzzing once found.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr std::size_t kSweepBytesMax = 512;

std::size_t RunFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
  std::size_t runs = 1;
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  if (bytes.size() > kSweepBytesMax) return runs;
  for (std::size_t size = 0; size < bytes.size(); ++size, ++runs) LLVMFuzzerTestOneInput(bytes.data(), size);
  for (std::uint8_t& byte : bytes) {
    const std::uint8_t kept = byte;
    for (const unsigned change : {0x00U, 0xFFU, 0x0AU, kept ^ 0x01U, kept ^ 0x80U}) {
      byte = static_cast<std::uint8_t>(change);
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++runs;
    }
    byte = kept;
  }
  return runs;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t files = 0;
  std::size_t runs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      runs += RunFile(entry.path());
      ++files;
    }
  }
  std::printf("%zu files, %zu runs\n", files, runs);
  return files > 0 ? 0 : 1;  // without a corpus the test could not fail
}
