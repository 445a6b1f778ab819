// Reads one value from an INI file with CIniFile, with a plain fgets reader, GLib's key file and inih, and compares
// with a plain read of the same bytes. Also measures how the time grows with the file.
//
// The file has one section, and the requested key is the last one, so that no reader can stop early.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/support/Doublings.h"
#include "bench/support/MemoryDirectory.h"
#include "inifile/IniFile.h"
#ifdef QX_HAVE_GLIB
#include <glib.h>
#endif
#ifdef QX_HAVE_INIH
#include <ini.h>
#endif

namespace {

using qx::bench::MemoryDirectory;
using qx::bench::Must;

constexpr std::int64_t kKeys = 1000;
constexpr const char* kSection = "InstanceNames";

std::string KeyOf(std::int64_t number) { return "Instance" + std::to_string(number); }
std::string ValueOf(std::int64_t number) { return "Temperature sensor " + std::to_string(number); }

std::string IniText(std::int64_t keys) {
  std::string text = "\n[InstanceNames]\n\n";
  for (std::int64_t number = 0; number < keys; ++number) text += KeyOf(number) + "=" + ValueOf(number) + "\n";
  return text;
}

// An INI file in a memory file system, and the key and the value of its last line.
struct Sample {
  explicit Sample(std::int64_t keys = kKeys)
      : path(directory.FileWith("names.ini", IniText(keys))), key(KeyOf(keys - 1)), value(ValueOf(keys - 1)) {}

  MemoryDirectory directory;
  std::string path;
  std::string key;
  std::string value;
};

void ReadFrom(benchmark::State& state, const Sample& sample) {
  CIniFile file;
  Must(file.Open(sample.path.c_str(), true), "open");
  std::string value;
  for (auto _ : state) {
    if (!file.GetString(value, kSection, sample.key.c_str(), "")) state.SkipWithError("no value");
  }
  Must(value == sample.value, "the value");
}

void ReadQx(benchmark::State& state) { ReadFrom(state, Sample()); }

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

void TrimEnd(char* begin, char* end) {
  while (end > begin && IsSpace(end[-1])) --end;
  *end = '\0';
}

// Reads the value by the same rules in plain code: lines of at most 1023 characters; comments and blanks are removed in
// the buffer.
bool ReadWithFgets(std::FILE* file, const char* section, const char* key, std::string& value) {
  const std::size_t section_chars = std::strlen(section);
  bool is_inside = false;
  char buffer[1024];
  while (std::fgets(buffer, sizeof buffer, file) != nullptr) {
    char* line = buffer;
    while (IsSpace(*line)) ++line;
    if (*line == '\0' || *line == ';') continue;
    TrimEnd(line, line + std::strcspn(line, ";"));
    if (*line == '[') {
      if (is_inside) return false;
      is_inside = std::strncmp(line + 1, section, section_chars) == 0 && line[1 + section_chars] == ']';
      continue;
    }
    char* equals = is_inside ? std::strchr(line, '=') : nullptr;
    if (equals == nullptr) continue;
    char* text = equals + 1;
    while (IsSpace(*text)) ++text;
    TrimEnd(line, equals);
    if (std::strcmp(line, key) != 0) continue;
    value = text;
    return true;
  }
  return false;
}

void ReadFgets(benchmark::State& state) {
  const Sample sample;
  std::string value;
  for (auto _ : state) {
    std::FILE* file = std::fopen(sample.path.c_str(), "re");
    if (!ReadWithFgets(file, kSection, sample.key.c_str(), value)) state.SkipWithError("no value");
    std::fclose(file);
  }
  Must(value == sample.value, "the value");
}

#ifdef QX_HAVE_GLIB
void ReadGlib(benchmark::State& state) {
  const Sample sample;
  for (auto _ : state) {
    GKeyFile* file = g_key_file_new();
    Must(g_key_file_load_from_file(file, sample.path.c_str(), G_KEY_FILE_NONE, nullptr) != 0, "load the key file");
    char* value = g_key_file_get_string(file, kSection, sample.key.c_str(), nullptr);
    if (value == nullptr || value != sample.value) state.SkipWithError("no value");
    g_free(value);
    g_key_file_free(file);
  }
}
#endif

#ifdef QX_HAVE_INIH
struct Request {
  const char* key;
  std::string value;
};

int TakeEntry(void* user, const char* section, const char* key, const char* value) {
  auto* request = static_cast<Request*>(user);
  if (std::strcmp(section, kSection) == 0 && std::strcmp(key, request->key) == 0) request->value = value;
  return 1;
}

void ReadInih(benchmark::State& state) {
  const Sample sample;
  Request request{sample.key.c_str(), {}};
  for (auto _ : state) {
    if (ini_parse(sample.path.c_str(), TakeEntry, &request) != 0) state.SkipWithError("parse");
  }
  Must(request.value == sample.value, "the value");
}
#endif

// Does the least that a reader has to do: opens the file, reads it in windows, closes it.
void ReadWhole(const std::string& path) {
  char window[16384];
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  while (read(file, window, sizeof window) > 0) benchmark::DoNotOptimize(&window);
  close(file);
}

void ReadLimit(benchmark::State& state) {
  const Sample sample;
  for (auto _ : state) ReadWhole(sample.path);
}

// --- How the time grows with the file ---

constexpr std::size_t kColdBytes = 64U << 20;

// Equal files, more than a processor's caches hold. They are read in turn, so each read has to fetch its file from
// memory, as a program that reads its settings once. Otherwise the growth would show which files fit into the caches.
class ColdSamples {
 public:
  explicit ColdSamples(std::int64_t keys) : key_(KeyOf(keys - 1)), value_(ValueOf(keys - 1)) {
    const std::string text = IniText(keys);
    for (std::size_t bytes = 0; bytes < kColdBytes; bytes += text.size()) {
      paths_.push_back(directory_.FileWith(std::to_string(paths_.size()).c_str(), text));
    }
  }

  const std::string& Next() { return paths_[next_++ % paths_.size()]; }

  // Whether the last entry of a file has its value.
  bool IsFoundIn(const std::string& path) const {
    char value[64];
    (void)CIniFile::GetPrivateProfileString(kSection, key_.c_str(), "", value, sizeof value, path.c_str());
    return value_ == value;
  }

 private:
  MemoryDirectory directory_;
  std::vector<std::string> paths_;
  std::size_t next_ = 0;
  std::string key_;
  std::string value_;
};

void GrowScan(benchmark::State& state, std::int64_t keys) {
  ColdSamples samples(keys);
  for (auto _ : state) {
    if (!samples.IsFoundIn(samples.Next())) state.SkipWithError("no value");
  }
}

void GrowLimit(benchmark::State& state, std::int64_t keys) {
  ColdSamples samples(keys);
  for (auto _ : state) ReadWhole(samples.Next());
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("ini_read/qx", ReadQx);
  benchmark::RegisterBenchmark("ini_read/fgets", ReadFgets);
#ifdef QX_HAVE_GLIB
  benchmark::RegisterBenchmark("ini_read/glib", ReadGlib);
#endif
#ifdef QX_HAVE_INIH
  benchmark::RegisterBenchmark("ini_read/inih", ReadInih);
#endif
  benchmark::RegisterBenchmark("ini_read/limit", ReadLimit);
  for (const std::int64_t keys : qx::bench::kDoublings) {
    benchmark::RegisterBenchmark(("grow_ini_scan/" + std::to_string(keys)).c_str(), GrowScan, keys);
    benchmark::RegisterBenchmark(("grow_ini_limit/" + std::to_string(keys)).c_str(), GrowLimit, keys);
  }
  return true;
}();

}  // namespace
