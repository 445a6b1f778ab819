// Loads and saves the registry, and compares with GLib's key file on the same content, with a plain dump by fprintf and
// with plain copies of the same bytes. Also measures how loading grows with the content.
//
// GLib's key file has the same names and values, and one group for each registry key. Destroying the loaded tree is not
// timed.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "bench/support/Doublings.h"
#include "bench/support/MemoryDirectory.h"
#include "bench/support/RegistrySample.h"
#include "registry/Registry.h"
#include "registry/RegistryPaths.h"
#include "registry/RegistryValue.h"
#ifdef QX_HAVE_GLIB
#include <glib.h>
#endif

namespace {

using qx::bench::Digits;
using qx::bench::ForEachValue;
using qx::bench::kValues;
using qx::bench::kValuesPerKey;
using qx::bench::MakeValue;
using qx::bench::MemoryDirectory;
using qx::bench::Must;
using qx::bench::RegistryText;
using qx::bench::Value;

// Makes one key with its names in descending order. A save never writes this order, but an editor may.
std::string FallingText(std::int64_t values) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (std::int64_t number = values; number-- > 0;) {
    const Value value = MakeValue(number);
    text += "Setting" + Digits(number) + value.marker + value.data + "\n";
  }
  return text + "\n\n";
}

constexpr std::size_t kLargeRequestBytes = 64UL * 1024;

std::size_t BytesInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

// Makes glibc join the free chunks of a destroyed tree. glibc only marks small chunks as free, and joins them with
// their neighbours at the next large request. Without this call that request would be part of the next load, and half
// the time that destroying the tree takes would count as load time.
void JoinFreeChunks() {
  void* large = std::malloc(kLargeRequestBytes);
  benchmark::DoNotOptimize(large);
  std::free(large);
}

// Times `load`, which returns a loaded tree, and counts the memory per value of the tree. `tidy` is called between two
// loads.
template <typename Load>
void TimeLoading(benchmark::State& state, std::int64_t values, Load load, void (*tidy)() = JoinFreeChunks) {
  (void)load();
  tidy();
  for (auto _ : state) {
    state.PauseTiming();
    const std::size_t before = BytesInUse();
    state.ResumeTiming();
    auto loaded = load();
    state.PauseTiming();
    state.counters["bytes_per_value"] = static_cast<double>(BytesInUse() - before) / static_cast<double>(values);
    loaded.reset();
    tidy();
    state.ResumeTiming();
  }
}

std::unique_ptr<CRegistryNode> Load(const std::string& path) {
  auto node = std::make_unique<CRegistryNode>();
  Must(CRegistry::ReadTree(path.c_str(), *node), "load the registry");
  return node;
}

void LoadQx(benchmark::State& state) {
  const MemoryDirectory directory;
  const std::string path = directory.FileWith("registry", RegistryText(kValues, kValuesPerKey));
  TimeLoading(state, kValues, [&path] { return Load(path); });
}

#ifdef QX_HAVE_GLIB
std::string KeyFileText() {
  std::string text;
  ForEachValue(
      kValues, kValuesPerKey, [&](const std::string& key) { text += "[HKEY_LOCAL_MACHINE/SOFTWARE/" + key + "]\n"; },
      [&](const std::string& name, const Value& value) { text += name + "=" + value.data + "\n"; });
  return text;
}

void LoadGlib(benchmark::State& state) {
  const MemoryDirectory directory;
  const std::string path = directory.FileWith("keyfile", KeyFileText());
  TimeLoading(state, kValues, [&path] {
    std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> loaded(g_key_file_new(), g_key_file_free);
    Must(g_key_file_load_from_file(loaded.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) != 0, "load the key file");
    return loaded;
  });
}
#endif

// Does the least that a load has to do: reads the file into a buffer that exists already.
void LoadLimit(benchmark::State& state) {
  const MemoryDirectory directory;
  const std::string text = RegistryText(kValues, kValuesPerKey);
  const std::string path = directory.FileWith("registry", text);
  std::string buffer(text.size(), '\0');
  for (auto _ : state) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    Must(read(file, buffer.data(), buffer.size()) == static_cast<ssize_t>(text.size()), "read");
    close(file);
    benchmark::DoNotOptimize(buffer.data());
  }
}

// Times the whole save: new file, backup, directory. The sync calls are made, but do nothing in a memory file system.
void SaveQx(benchmark::State& state) {
  const MemoryDirectory directory;
  (void)directory.FileWith("registry", RegistryText(kValues, kValuesPerKey));
  qx::registry::ResetRegistry(directory.Path());
  CRegistry::SetupTree(false);
  for (auto _ : state) {
    CRegistry::MIsDirty = true;
    CRegistry::SaveTree();
  }
  qx::registry::ResetRegistry(nullptr);
}

// Formats 0a ff as "0a ff ". One fprintf per byte would double the time of the whole dump.
std::string Hexadecimal(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {kDigits[byte >> 4U], kDigits[byte & 0xFU], ' '};
  }
  return text;
}

void PrintValue(std::FILE* file, const StrMapEntry& entry) {
  const char* string = static_cast<const char*>(entry.value.slot.pointer);
  switch (entry.value.type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      std::fprintf(file, "%s%s%s\n", entry.name, entry.value.type == REG_SZ ? "=s=" : "=es=", string);
      break;
    case REG_DWORD:
      std::fprintf(file, "%s%s%d\n", entry.name, "=d=", entry.value.slot.number);
      break;
    case REG_BINARY:
      std::fprintf(file, "%s%s%s\n", entry.name, "=b=", Hexadecimal(qx::registry::BlockBytes(string)).c_str());
      break;
    default:
      break;
  }
}

void PrintKey(std::FILE* file, const CRegistryNode& key) {
  for (const StrMapEntry& entry : key.Entries()) PrintValue(file, entry);
  for (const StrMapEntry& entry : key.Entries()) {
    const CRegistryNode* subkey = qx::registry::NodeOf(entry.value);
    if (subkey == nullptr) continue;
    std::fprintf(file, "[%s]\n", entry.name);
    PrintKey(file, *subkey);
  }
  std::fprintf(file, "\n");
}

void SaveFprintf(benchmark::State& state) {
  const MemoryDirectory directory;
  const auto tree = Load(directory.FileWith("registry", RegistryText(kValues, kValuesPerKey)));
  const std::string path = directory.File("registry.new");
  for (auto _ : state) {
    std::FILE* file = std::fopen(path.c_str(), "we");
    PrintKey(file, *tree);
    Must(std::fclose(file) == 0, path.c_str());
  }
}

// Does the least that a save has to do: writes the finished text.
void SaveLimit(benchmark::State& state) {
  const MemoryDirectory directory;
  const std::string text = RegistryText(kValues, kValuesPerKey);
  const std::string path = directory.File("registry.new");
  for (auto _ : state) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Must(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
    close(file);
  }
}

// Every load takes new memory from the system, like the only load of a process. Otherwise the allocator would keep the
// memory of small trees and return the memory of large ones.
void GrowLoad(benchmark::State& state, const std::string& text, std::int64_t values) {
  const MemoryDirectory directory;
  const std::string path = directory.FileWith("registry", text);
  TimeLoading(
      state, values, [&path] { return Load(path); }, [] { (void)malloc_trim(0); });
}

void RegisterGrowth(std::int64_t values) {
  const std::string size = "/" + std::to_string(values);
  benchmark::RegisterBenchmark(("grow_registry_keys" + size).c_str(), [values](benchmark::State& state) {
    GrowLoad(state, RegistryText(values, kValuesPerKey), values);
  });
  benchmark::RegisterBenchmark(("grow_registry_one_key" + size).c_str(), [values](benchmark::State& state) {
    GrowLoad(state, RegistryText(values, values), values);
  });
  benchmark::RegisterBenchmark(("grow_registry_falling_names" + size).c_str(),
                               [values](benchmark::State& state) { GrowLoad(state, FallingText(values), values); });
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("registry_load/qx", LoadQx);
#ifdef QX_HAVE_GLIB
  benchmark::RegisterBenchmark("registry_load/glib", LoadGlib);
#endif
  benchmark::RegisterBenchmark("registry_load/limit", LoadLimit);
  benchmark::RegisterBenchmark("registry_save/qx", SaveQx);
  benchmark::RegisterBenchmark("registry_save/fprintf", SaveFprintf);
  benchmark::RegisterBenchmark("registry_save/limit", SaveLimit);
  for (const std::int64_t values : qx::bench::kDoublings) RegisterGrowth(values);
  return true;
}();

}  // namespace
