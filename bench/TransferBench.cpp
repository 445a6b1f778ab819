// Transfers a full, wrapped ring through the exported function. Compares with a reader that fetches record by record
// with stdio, with one that walks an LMDB database (both build the same replies), and with the system calls and copies
// alone for the same bytes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/Doublings.h"
#include "bench/support/MemoryDirectory.h"
#include "bench/support/ServiceHost.h"
#ifdef QX_HAVE_LMDB
#include <lmdb.h>
#endif
#ifdef QX_HAVE_PUGIXML
#include <pugixml.hpp>

#include "bench/support/PugiText.h"
#endif

namespace {

using qx::bench::Block;
using qx::bench::kChunkBytes;
using qx::bench::kRecordBytes;
using qx::bench::kSlots;
using qx::bench::Module;
using qx::bench::Must;
using qx::bench::Record;
using qx::bench::ReportDirectory;
using qx::bench::TheModule;
using qx::bench::TransferOnce;

constexpr std::size_t kRingBytes = kSlots * (kRecordBytes + 2);

void WriteBenchReport() { qx::bench::WriteReport("bench", kSlots); }

void TransferQx(benchmark::State& state) {
  WriteBenchReport();
  Block block;
  for (auto _ : state) {
    if (TransferOnce(block, "bench") != kSlots) state.SkipWithError("records are missing");
  }
}

// Counts the page faults per chunk, after a first transfer.
void TransferFaults(benchmark::State& state) {
  WriteBenchReport();
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
}

constexpr int kTransfersPerThread = 10;

void TransferMany(const std::string& name, int count) {
  Block block;
  for (int i = 0; i < count; ++i) benchmark::DoNotOptimize(TransferOnce(block, name));
}

std::string ReportOfThread(int number) { return "bench" + std::to_string(number); }

// Transfers on `count` threads at once, each with its own report.
void TransferOnThreads(benchmark::State& state, int count) {
  for (int i = 0; i < count; ++i) qx::bench::WriteReport(ReportOfThread(i), kSlots);
  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(TransferMany, ReportOfThread(i), kTransfersPerThread);
    for (std::thread& thread : threads) thread.join();
  }
}

// Does the work of two threads, one after the other. If threads waited for each other by spinning, two threads at once
// would need more processor time than this row.
void TransferOneAfterTheOther(benchmark::State& state) {
  for (int i = 0; i < 2; ++i) qx::bench::WriteReport(ReportOfThread(i), kSlots);
  for (auto _ : state) {
    for (int i = 0; i < 2; ++i) std::thread(TransferMany, ReportOfThread(i), kTransfersPerThread).join();
  }
}

// Times the transfer of a report with `records` records. The first transfer, which also loads the module, is not timed.
void GrowRecords(benchmark::State& state, std::uint32_t records) {
  qx::bench::WriteReport("grow", records);
  Block block;
  (void)TransferOnce(block, "grow");
  for (auto _ : state) {
    if (TransferOnce(block, "grow") != records) state.SkipWithError("records are missing");
  }
}

std::string Reply(long start, long next, const std::string& records) {
  return "<ReportData Name=\"bench\" StartIndex=\"" + std::to_string(start) + "\" NextIndex=\"" + std::to_string(next) +
         "\"><![CDATA[" + records + "]]></ReportData>\n";
}

// Reads a record in the plain form: a seek in each file, the slot, then the record byte by byte.
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
  WriteBenchReport();
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

#if defined(QX_HAVE_LMDB) && defined(QX_HAVE_PUGIXML)
// Keeps the ring's records in a database, in order of age.
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
  qx::bench::StringWriter writer;
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

// Does the least that a transfer has to do: reads the bytes, copies them into a document, duplicates it for the host.
void TransferLimit(benchmark::State& state) {
  WriteBenchReport();
  const std::string path = ReportDirectory() + "/bench.dat";
  std::vector<char> window(kChunkBytes);
  std::string document;
  for (auto _ : state) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (std::size_t at = 0; at < kRingBytes; at += kChunkBytes) {
      const std::size_t bytes = std::min(kChunkBytes, kRingBytes - at);
      if (pread(fd, window.data(), bytes, static_cast<off_t>(at)) != static_cast<ssize_t>(bytes))
        state.SkipWithError("read");
      document.assign(window.data(), bytes);
      char* reply = strdup(document.c_str());
      benchmark::DoNotOptimize(reply);
      std::free(reply);
    }
    close(fd);
  }
}

// Makes the system calls of a transfer and allocates its replies, and nothing else: each chunk is read into memory that
// is kept, its slots are read, and the chunk is copied into an allocated reply.
void TransferBareCalls(benchmark::State& state) {
  WriteBenchReport();
  const std::string base = ReportDirectory() + "/bench";
  std::vector<char> chunk(kChunkBytes);
  std::vector<std::uint32_t> slots(kChunkBytes / (kRecordBytes + 2));
  for (auto _ : state) {
    const int data = open((base + ".dat").c_str(), O_RDONLY | O_CLOEXEC);
    const int index = open((base + ".ind").c_str(), O_RDONLY | O_CLOEXEC);
    for (std::size_t at = 0; at < kRingBytes; at += kChunkBytes) {
      const std::size_t bytes = std::min(kChunkBytes, kRingBytes - at);
      const std::size_t slot_bytes = bytes / (kRecordBytes + 2) * sizeof(std::uint32_t);
      const auto slot_at = static_cast<off_t>(at / (kRecordBytes + 2) * sizeof(std::uint32_t));
      if (pread(data, chunk.data(), bytes, static_cast<off_t>(at)) != static_cast<ssize_t>(bytes) ||
          pread(index, slots.data(), slot_bytes, slot_at) != static_cast<ssize_t>(slot_bytes))
        state.SkipWithError("read");
      void* reply = std::malloc(bytes);
      if (reply != nullptr) std::memcpy(reply, chunk.data(), bytes);
      benchmark::DoNotOptimize(reply);
      benchmark::ClobberMemory();
      std::free(reply);
    }
    close(index);
    close(data);
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
// Parses the request and builds a reply with the same attributes.
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
    qx::bench::StringWriter writer;
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
BENCHMARK(TransferBareCalls)->Name("transfer/bare_calls")->Unit(benchmark::kMillisecond);
BENCHMARK(TransferLimit)->Name("transfer/limit")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(TransferOnThreads, two, 2)
    ->Name("transfer_on_two_threads/qx")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(TransferOneAfterTheOther)
    ->Name("transfer_on_two_threads/by_one_thread")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK(TransferFaults)->Name("transfer_faults/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(WhatQx)->Name("what/qx");
#ifdef QX_HAVE_PUGIXML
BENCHMARK(WhatPugixml)->Name("what/pugixml");
#endif

const bool kGrowthRegistered = [] {
  for (const std::int64_t records : qx::bench::kDoublings) {
    benchmark::RegisterBenchmark(("grow_transfer_records/" + std::to_string(records)).c_str(), GrowRecords,
                                 static_cast<std::uint32_t>(records));
  }
  for (int threads = 1; threads <= 4; ++threads) {
    benchmark::RegisterBenchmark(("threads_transfer/" + std::to_string(threads)).c_str(), TransferOnThreads, threads)
        ->UseRealTime();
  }
  return true;
}();

}  // namespace

void PrepareBeforeThreads();
void PrepareBeforeThreads() { qx::bench::PrepareService(); }
