// Appends records to a ring with the store, with plain stdio code, with SQLite, and with the system calls alone.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "sdk/Writer.h"
#ifdef QX_HAVE_SQLITE3
#include <sqlite3.h>
#endif

namespace {

constexpr std::uint32_t kSlots = 10000;
const std::string kRecord(100, 'r');

void Must(bool ok, const char* what) {
  if (ok) return;
  std::perror(what);
  std::exit(1);
}

// A private directory for the row. It is in a memory file system if there is one, because the rows do not compare
// disks.
class Directory {
 public:
  Directory()
      : path_(
            (std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path().string()) +
            "/qx-bench-store-" + std::to_string(getpid())) {
    std::filesystem::create_directories(path_);
  }
  ~Directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void AppendQx(benchmark::State& state) {
  const Directory directory;
  CReportFileBase store;
  Must(store.Open(directory.File("r").c_str(), kSlots), "create the store");
  for (auto _ : state) {
    if (!store.writeLine(kRecord.c_str())) state.SkipWithError("append");
  }
}

// Writes the same files through buffered streams: seek, text, line end and flush; slot; marker and flush; header and
// flush.
class StdioStore {
 public:
  explicit StdioStore(const std::string& base)
      : data_(std::fopen((base + ".dat").c_str(), "w+be")), index_(std::fopen((base + ".ind").c_str(), "w+be")) {
    Must(data_ != nullptr && index_ != nullptr, base.c_str());
    header_.maxRecord = kSlots;
  }
  ~StdioStore() {
    std::fclose(data_);
    std::fclose(index_);
  }
  StdioStore(const StdioStore&) = delete;
  StdioStore& operator=(const StdioStore&) = delete;

  bool Append(const std::string& text) {
    std::fseek(data_, header_.writePosition, SEEK_SET);
    if (std::fputs(text.c_str(), data_) < 0 || std::fwrite("\r\n", 1, 2, data_) != 2 || std::fflush(data_) != 0) {
      return false;
    }
    std::fseek(index_, qx::report::SlotOffset(qx::report::SlotForNewRecord(header_)), SEEK_SET);
    if (std::fwrite(&header_.writePosition, sizeof header_.writePosition, 1, index_) != 1) return false;
    qx::report::AdvanceRing(header_);
    header_.writePosition = static_cast<std::uint32_t>(std::ftell(data_));
    std::fputs("===>\r\n", data_);
    std::fflush(data_);
    header_.fileEnd = std::max(header_.fileEnd, header_.writePosition);
    ++header_.elementCount;
    if (qx::report::DataFileRestarts(header_)) qx::report::RestartDataFile(header_);
    std::fseek(index_, 0, SEEK_SET);
    return std::fwrite(&header_, sizeof header_, 1, index_) == 1 && std::fflush(index_) == 0;
  }

 private:
  std::FILE* data_;
  std::FILE* index_;
  qx::report::IndexHeader header_;
};

void AppendStdio(benchmark::State& state) {
  const Directory directory;
  StdioStore store(directory.File("r"));
  for (auto _ : state) {
    if (!store.Append(kRecord)) state.SkipWithError("append");
  }
}

#ifdef QX_HAVE_SQLITE3
// The ring as a table: one row per slot, replaced in turn; one transaction per record.
void AppendSqlite(benchmark::State& state) {
  const Directory directory;
  sqlite3* database = nullptr;
  Must(sqlite3_open(directory.File("r.db").c_str(), &database) == SQLITE_OK, "open the database");
  const auto run = [database](const char* sql) {
    Must(sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
  };
  run("PRAGMA journal_mode=WAL");
  run("PRAGMA synchronous=OFF");
  run("CREATE TABLE ring(slot INTEGER PRIMARY KEY, record TEXT)");
  sqlite3_stmt* insert = nullptr;
  Must(sqlite3_prepare_v2(database, "INSERT OR REPLACE INTO ring VALUES(?,?)", -1, &insert, nullptr) == SQLITE_OK,
       "prepare");
  std::uint32_t slot = 0;
  for (auto _ : state) {
    sqlite3_bind_int64(insert, 1, slot);
    sqlite3_bind_text(insert, 2, kRecord.data(), static_cast<int>(kRecord.size()), SQLITE_STATIC);
    if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError("insert");
    sqlite3_reset(insert);
    slot = slot + 1 < kSlots ? slot + 1 : 0;
  }
  sqlite3_finalize(insert);
  sqlite3_close(database);
}
#endif

// The least that an append has to do: three system calls, for record, slot and header.
void AppendLimit(benchmark::State& state) {
  const Directory directory;
  const int data = open(directory.File("r.dat").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const int index = open(directory.File("r.ind").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  Must(data >= 0 && index >= 0, "create the files");
  const std::string record = kRecord + "\r\n===>\r\n";
  const std::array<std::uint32_t, 6> header{};
  std::uint32_t number = 0;
  for (auto _ : state) {
    const std::uint32_t slot = number % kSlots;
    const auto at = static_cast<off_t>(number % (2 * kSlots) * (kRecord.size() + 2));
    bool ok = pwrite(data, record.data(), record.size(), at) > 0;
    ok = pwrite(index, &number, sizeof number, qx::report::SlotOffset(slot)) > 0 && ok;
    ok = pwrite(index, header.data(), sizeof header, 0) > 0 && ok;
    if (!ok) state.SkipWithError("write");
    ++number;
  }
  close(data);
  close(index);
}

// A hundred records a call, and the same through single calls.
constexpr std::size_t kBatch = 100;

void AppendBatchQx(benchmark::State& state) {
  const Directory directory;
  qx::Writer writer;
  Must(!writer.Open(directory.File("r"), kSlots).Failed(), "create the store");
  const std::vector<std::string_view> batch(kBatch, kRecord);
  for (auto _ : state) {
    if (writer.Append(batch).Failed()) state.SkipWithError("append");
  }
}

void AppendBatchSingly(benchmark::State& state) {
  const Directory directory;
  CReportFileBase store;
  Must(store.Open(directory.File("r").c_str(), kSlots), "create the store");
  for (auto _ : state) {
    for (std::size_t i = 0; i < kBatch; ++i) {
      if (!store.writeLine(kRecord.c_str())) state.SkipWithError("append");
    }
  }
}

BENCHMARK(AppendBatchQx)->Name("append_batch/qx");
BENCHMARK(AppendBatchSingly)->Name("append_batch/single_appends");
BENCHMARK(AppendQx)->Name("append/qx");
BENCHMARK(AppendStdio)->Name("append/stdio");
#ifdef QX_HAVE_SQLITE3
BENCHMARK(AppendSqlite)->Name("append/sqlite");
#endif
BENCHMARK(AppendLimit)->Name("append/limit");

}  // namespace
