// A whole transfer of a full, wrapped ring through the exported function, beside a reader that fetches record by record
// with stdio and makes the same replies, and beside the bare system calls and copies for the same bytes.
//
// The program lives in mount namespace of its own with a small registry at the fixed place, so that a request pays what
// it pays on a machine that has one (an absent registry costs a dozen failed opens a request).
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "provider/ModuleExports.h"
#include "reportfile/ReportFileBase.h"

namespace {

constexpr std::uint32_t kSlots = 100000;
constexpr std::size_t kRecordBytes = 100;  // of text; CR LF come on top
constexpr std::size_t kChunkBytes = 1U << 20;
constexpr std::size_t kRingBytes = kSlots * (kRecordBytes + 2);

void Must(bool ok, const char* what) {
  if (ok) return;
  std::perror(what);
  std::exit(1);
}

void WriteText(const std::string& path, const std::string& text) {
  FILE* file = std::fopen(path.c_str(), "we");
  Must(file != nullptr, path.c_str());
  Must(std::fwrite(text.data(), 1, text.size(), file) == text.size(), path.c_str());
  Must(std::fclose(file) == 0, path.c_str());
}

std::string ReportDirectory() {
  static const std::string directory =
      std::filesystem::temp_directory_path().string() + "/qx-bench-" + std::to_string(getpid());
  return directory;
}

void EnterNamespaceWithRegistry() {
  const auto uid = std::to_string(getuid());
  const auto gid = std::to_string(getgid());
  Must(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare (user namespaces must be allowed)");
  WriteText("/proc/self/setgroups", "deny");
  WriteText("/proc/self/uid_map", "0 " + uid + " 1");
  WriteText("/proc/self/gid_map", "0 " + gid + " 1");
  Must(mount("tmpfs", "/etc", "tmpfs", 0, nullptr) == 0, "mount a tmpfs over /etc");
  std::filesystem::create_directories("/etc/brollan");
  WriteText("/etc/brollan/registry",
            "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\nReportRoot=s=" +
                ReportDirectory() + "\n\n\n\n\n\n\n\n");
}

std::string Record(std::uint32_t number) {
  char text[kRecordBytes + 1];
  std::snprintf(text, sizeof text, "%010u|2026-01-31 10:20:30|cpu=%03u%%|", number, number % 101);
  std::string record = text;
  record.resize(kRecordBytes, 'x');
  return record;
}

// 1.5 rings of records: the ring is full and its oldest record stands in the middle of the slots.
void WriteReport(const std::string& name) {
  CReportFileBase store;
  Must(store.Open((ReportDirectory() + "/" + name).c_str(), kSlots), "create the store");
  for (std::uint32_t i = 0; i < kSlots + kSlots / 2; ++i) Must(store.writeLine(Record(i).c_str()), "append");
}

class Module {
 public:
  Module() {
    setenv("QX_LOG_RINGBUF_DIR", ReportDirectory().c_str(), 1);
    handle_ = dlopen(QX_MODULE, RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
    get_reports = reinterpret_cast<QxRequestFunction>(dlsym(handle_, "GetReports"));
    what = reinterpret_cast<QxRequestFunction>(dlsym(handle_, "What"));
    free_reply = reinterpret_cast<QxFreeFunction>(dlsym(handle_, "__free"));
    thread_end = reinterpret_cast<QxThreadEndFunction>(dlsym(handle_, "__threadend"));
  }

  QxRequestFunction get_reports;
  QxRequestFunction what;
  QxFreeFunction free_reply;
  QxThreadEndFunction thread_end;

 private:
  void* handle_;
};

Module& TheModule() {
  static Module module;
  return module;
}

// A block with the elements that a call needs: the thread's state and the thread id.
class Block {
 public:
  krx_gendata* get() { return &header_; }
  void* thread_data() const { return elements_[0].value; }

 private:
  std::uint32_t thread_id_ = 7;
  krx_element elements_[2] = {{0, kKrxProviderData, 0, 0, 0, kKrxTypePointer, 0, nullptr},
                              {0, kKrxThreadId, 0, 0, 0, kKrxTypeUint32, 0, &thread_id_}};
  krx_element* pointers_[2] = {&elements_[0], &elements_[1]};
  krx_gendata header_ = {30400, sizeof(krx_gendata), {'K', 'R', 'X', 0}, 2, pointers_};
};

// One whole transfer, chunk by chunk as a client asks for it; returns the reply bytes received.
std::size_t TransferOnce(Block& block, const std::string& name) {
  Module& module = TheModule();
  std::size_t received = 0;
  long next = 0;
  for (;;) {
    const std::string request = "<ReportData Name=\"" + name + "\" StartIndex=\"" + std::to_string(next) + "\"/>";
    char* reply = nullptr;
    const int result = module.get_reports(block.get(), request.c_str(), &reply);
    if (result == 0 && reply != nullptr) {
      received += std::strlen(reply);
      next = std::strtol(std::strstr(reply, "NextIndex=\"") + 11, nullptr, 10);
    }
    module.free_reply(reply);
    if (result != 0) return received;
  }
}

void TransferQx(benchmark::State& state) {
  Block block;
  for (auto _ : state) {
    if (TransferOnce(block, "bench") < kRingBytes) state.SkipWithError("records are missing");
  }
  TheModule().thread_end(block.thread_data());
}

// Two threads, each with a report of its own: the time of one transfer on each at once.
void TransferTwoThreads(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (const std::string name : {"bench", "bench2"}) {
      threads.emplace_back([name] {
        Block block;
        for (int i = 0; i < 10; ++i) benchmark::DoNotOptimize(TransferOnce(block, name));
        TheModule().thread_end(block.thread_data());
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

std::string Reply(long start, long next, const std::string& records) {
  return "<ReportData Name=\"bench\" StartIndex=\"" + std::to_string(start) + "\" NextIndex=\"" + std::to_string(next) +
         "\"><![CDATA[" + records + "]]></ReportData>\n";
}

// The straightforward form: a seek in each file, the slot, then the record byte by byte.
std::string StdioRecord(FILE* index, FILE* data, std::uint32_t slot) {
  std::uint32_t position = 0;
  std::fseek(index, 24 + 4L * slot, SEEK_SET);
  if (std::fread(&position, sizeof position, 1, index) != 1) return {};
  std::fseek(data, position, SEEK_SET);
  std::string record;
  for (;;) {
    const int byte = std::fgetc(data);
    record += static_cast<char>(byte);
    if (byte == '\n' || byte == EOF) return record;
  }
}

void TransferStdio(benchmark::State& state) {
  const std::string base = ReportDirectory() + "/bench";
  for (auto _ : state) {
    FILE* index = std::fopen((base + ".ind").c_str(), "rbe");
    FILE* data = std::fopen((base + ".dat").c_str(), "rbe");
    std::uint32_t header[6];
    if (std::fread(header, sizeof header, 1, index) != 1) state.SkipWithError("no header");
    std::uint32_t i = 0;
    while (i < header[4]) {
      const std::uint32_t first = i;
      std::string records;
      for (; i < header[4]; ++i) {
        const std::string record = StdioRecord(index, data, (i + header[5]) % header[4]);
        if (records.size() + record.size() >= kChunkBytes) break;
        records += record;
      }
      char* reply = strdup(Reply(first, i, records).c_str());
      benchmark::DoNotOptimize(reply);
      std::free(reply);
    }
    std::fclose(index);
    std::fclose(data);
  }
}

// The same bytes with nothing but what has to happen to them: read, copied into a document, duplicated for the host.
void TransferLimit(benchmark::State& state) {
  const std::string path = ReportDirectory() + "/bench.dat";
  std::vector<char> window(kChunkBytes);
  std::string document;
  for (auto _ : state) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (std::size_t at = 0; at < kRingBytes; at += kChunkBytes) {
      const std::size_t wanted = std::min(kChunkBytes, kRingBytes - at);
      if (pread(fd, window.data(), wanted, static_cast<off_t>(at)) != static_cast<ssize_t>(wanted))
        state.SkipWithError("read");
      document.assign(window.data(), wanted);
      char* reply = strdup(document.c_str());
      benchmark::DoNotOptimize(reply);
      std::free(reply);
    }
    close(fd);
  }
}

void WhatQx(benchmark::State& state) {
  Block block;
  Module& module = TheModule();
  for (auto _ : state) {
    char* reply = nullptr;
    benchmark::DoNotOptimize(module.what(block.get(), "<What/>", &reply));
    module.free_reply(reply);
  }
}

BENCHMARK(TransferQx)->Name("transfer/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(TransferStdio)->Name("transfer/stdio_per_record")->Unit(benchmark::kMillisecond);
BENCHMARK(TransferLimit)->Name("transfer/limit")->Unit(benchmark::kMillisecond);
BENCHMARK(TransferTwoThreads)
    ->Name("transfer_20_on_two_threads/qx")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(WhatQx)->Name("what/qx");

}  // namespace

void PrepareBeforeThreads();
void PrepareBeforeThreads() {
  EnterNamespaceWithRegistry();
  std::filesystem::create_directories(ReportDirectory());
  WriteReport("bench");
  WriteReport("bench2");
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(ReportDirectory(), ignored);
  });
}
