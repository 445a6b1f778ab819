// A whole transfer of a full, wrapped ring through the exported function, beside a reader that fetches record by record
// with stdio and one that walks an LMDB database, both of which make the same replies, and beside the bare system calls
// and copies for the same bytes.
//
// The program lives in a mount namespace of its own with a small registry at the fixed place, so that a request pays
// what it pays on a machine that has one (an absent registry costs a dozen failed opens a request).
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#ifdef QX_HAVE_LMDB
#include <lmdb.h>
#endif
#ifdef QX_HAVE_PUGIXML
#include <pugixml.hpp>
#endif

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

// One whole transfer, chunk by chunk as a client asks for it; returns the number of records received.
long TransferOnce(Block& block, const std::string& name) {
  Module& module = TheModule();
  long next = 0;
  for (;;) {
    const std::string request = "<ReportData Name=\"" + name + "\" StartIndex=\"" + std::to_string(next) + "\"/>";
    char* reply = nullptr;
    const int result = module.get_reports(block.get(), request.c_str(), &reply);
    if (result == 0 && reply != nullptr) {
      next = std::strtol(std::strstr(reply, "NextIndex=\"") + 11, nullptr, 10);
    }
    module.free_reply(reply);
    if (result != 0) return next;
  }
}

void TransferQx(benchmark::State& state) {
  Block block;
  for (auto _ : state) {
    if (TransferOnce(block, "bench") != kSlots) state.SkipWithError("records are missing");
  }
  TheModule().thread_end(block.thread_data());
}

// Counts the page faults of a transfer's chunks in the steady state.
void TransferFaults(benchmark::State& state) {
  Block block;
  (void)TransferOnce(block, "bench");
  const auto faults = [] {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_minflt + usage.ru_majflt);
  };
  const double before = faults();
  for (auto _ : state) (void)TransferOnce(block, "bench");
  constexpr double kChunks = static_cast<double>(kRingBytes) / kChunkBytes;
  state.counters["faults_per_chunk"] = (faults() - before) / (static_cast<double>(state.iterations()) * kChunks);
  TheModule().thread_end(block.thread_data());
}

constexpr int kTransfersPerThread = 10;

void TransferMany(const std::string& name, int count) {
  Block block;
  for (int i = 0; i < count; ++i) benchmark::DoNotOptimize(TransferOnce(block, name));
  TheModule().thread_end(block.thread_data());
}

// Two threads, each with a report of its own, and one thread that does the work of both. Threads that kept each other
// busy would cost more than the one.
void TransferTwoThreads(benchmark::State& state) {
  for (auto _ : state) {
    std::thread other([] { TransferMany("bench2", kTransfersPerThread); });
    TransferMany("bench", kTransfersPerThread);
    other.join();
  }
}

void TransferOneThread(benchmark::State& state) {
  for (auto _ : state) {
    TransferMany("bench2", kTransfersPerThread);
    TransferMany("bench", kTransfersPerThread);
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

#ifdef QX_HAVE_PUGIXML
struct StringWriter : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
};
#endif

#if defined(QX_HAVE_LMDB) && defined(QX_HAVE_PUGIXML)
// The ring's records in a database, by age.
class Lmdb {
 public:
  Lmdb() {
    const std::string path = ReportDirectory() + "/bench.mdb";
    bool ok = mdb_env_create(&env_) == 0 && mdb_env_set_mapsize(env_, std::size_t{1} << 28) == 0;
    ok = ok && mdb_env_open(env_, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600) == 0;
    MDB_txn* txn = nullptr;
    ok = ok && mdb_txn_begin(env_, nullptr, 0, &txn) == 0;
    ok = ok && mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY | MDB_CREATE, &records_) == 0;
    for (std::uint32_t i = 0; ok && i < kSlots; ++i) {
      std::string record = Record(i + kSlots / 2) + "\r\n";
      MDB_val key{sizeof i, &i};
      MDB_val value{record.size(), record.data()};
      ok = mdb_put(txn, records_, &key, &value, MDB_APPEND) == 0;
    }
    Must(ok && mdb_txn_commit(txn) == 0, "fill the database");
  }
  ~Lmdb() { mdb_env_close(env_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  MDB_env* env_ = nullptr;
  MDB_dbi records_ = 0;
};

char* PugixmlReply(long start, long next, const std::string& records) {
  pugi::xml_document document;
  pugi::xml_node data = document.append_child("ReportData");
  data.append_attribute("Name").set_value("bench");
  data.append_attribute("StartIndex").set_value(start);
  data.append_attribute("NextIndex").set_value(next);
  data.append_child(pugi::node_cdata).set_value(records.c_str());
  StringWriter writer;
  document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
  return strdup(writer.text.c_str());
}

void TransferLmdb(benchmark::State& state) {
  static const Lmdb lmdb;  // filled once, however often the row is called
  for (auto _ : state) {
    std::uint32_t i = 0;
    while (i < kSlots) {
      const std::uint32_t first = i;
      MDB_txn* txn = nullptr;
      MDB_cursor* cursor = nullptr;
      Must(mdb_txn_begin(lmdb.env_, nullptr, MDB_RDONLY, &txn) == 0, "begin");
      Must(mdb_cursor_open(txn, lmdb.records_, &cursor) == 0, "cursor");
      std::string records;
      MDB_val key{sizeof i, &i};
      MDB_val value;
      for (int found = mdb_cursor_get(cursor, &key, &value, MDB_SET); found == 0;
           found = mdb_cursor_get(cursor, &key, &value, MDB_NEXT), ++i) {
        if (records.size() + value.mv_size >= kChunkBytes) break;
        records.append(static_cast<const char*>(value.mv_data), value.mv_size);
      }
      mdb_cursor_close(cursor);
      mdb_txn_abort(txn);
      char* reply = PugixmlReply(first, i, records);
      benchmark::DoNotOptimize(reply);
      std::free(reply);
    }
  }
}
#endif

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

constexpr char kWhatRequest[] = "<What/>";

void WhatQx(benchmark::State& state) {
  Block block;
  Module& module = TheModule();
  for (auto _ : state) {
    char* reply = nullptr;
    benchmark::DoNotOptimize(module.what(block.get(), kWhatRequest, &reply));
    module.free_reply(reply);
  }
}

#ifdef QX_HAVE_PUGIXML
// The request parsed and a reply of the same attributes built.
void WhatPugixml(benchmark::State& state) {
  for (auto _ : state) {
    pugi::xml_document in;
    benchmark::DoNotOptimize(in.load_buffer(kWhatRequest, sizeof kWhatRequest - 1));
    pugi::xml_document out;
    pugi::xml_node what = out.append_child("QXRemConXfer");
    what.append_attribute("version").set_value("0.1.0");
    what.append_attribute("date").set_value("2026/01/31-10:20");
    what.append_attribute("company").set_value("Norrlek");
    what.append_attribute("milestone").set_value("-");
    StringWriter writer;
    out.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
    char* reply = strdup(writer.text.c_str());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}
#endif

BENCHMARK(TransferQx)->Name("transfer/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(TransferStdio)->Name("transfer/stdio_per_record")->Unit(benchmark::kMillisecond);
#if defined(QX_HAVE_LMDB) && defined(QX_HAVE_PUGIXML)
BENCHMARK(TransferLmdb)->Name("transfer/lmdb_pugixml")->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(TransferLimit)->Name("transfer/limit")->Unit(benchmark::kMillisecond);
BENCHMARK(TransferTwoThreads)
    ->Name("transfer_on_two_threads/qx")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(TransferOneThread)
    ->Name("transfer_on_two_threads/by_one_thread")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(TransferFaults)->Name("transfer_faults/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(WhatQx)->Name("what/qx");
#ifdef QX_HAVE_PUGIXML
BENCHMARK(WhatPugixml)->Name("what/pugixml");
#endif

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
