// Appends records to a ring and reads them, with the store, with plain stdio code, with SQLite, with LMDB, and with the
// system calls alone.
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
#include "sdk/Reader.h"
#include "sdk/Writer.h"
#ifdef QX_HAVE_LMDB
#include <lmdb.h>
#endif
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
// Stores the ring as a table: each slot is a row, and the rows are replaced in turn.
class Sqlite {
 public:
  explicit Sqlite(const std::string& file) {
    Must(sqlite3_open(file.c_str(), &database_) == SQLITE_OK, "open the database");
    Run("PRAGMA journal_mode=WAL");
    Run("PRAGMA synchronous=OFF");
    Run("CREATE TABLE ring(slot INTEGER PRIMARY KEY, record TEXT)");
    insert_ = Prepare("INSERT OR REPLACE INTO ring VALUES(?,?)");
    begin_ = Prepare("BEGIN IMMEDIATE");
    commit_ = Prepare("COMMIT");
    select_ = Prepare("SELECT record FROM ring ORDER BY slot");
  }
  ~Sqlite() {
    for (sqlite3_stmt* statement : {insert_, begin_, commit_, select_}) sqlite3_finalize(statement);
    sqlite3_close(database_);
  }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

  // Appends one record, in a separate transaction unless one is open.
  bool Append() {
    sqlite3_bind_int64(insert_, 1, slot_);
    sqlite3_bind_text(insert_, 2, kRecord.data(), static_cast<int>(kRecord.size()), SQLITE_STATIC);
    slot_ = slot_ + 1 < kSlots ? slot_ + 1 : 0;
    return Step(insert_);
  }

  // One transaction.
  bool AppendBatch(std::size_t records) {
    bool ok = Step(begin_);
    for (std::size_t i = 0; i < records; ++i) ok = Append() && ok;
    return Step(commit_) && ok;
  }

  std::uint32_t ReadAll(std::string& record) {
    std::uint32_t records = 0;
    for (; sqlite3_step(select_) == SQLITE_ROW; ++records) {
      const void* const text = sqlite3_column_text(select_, 0);
      record.assign(static_cast<const char*>(text), static_cast<std::size_t>(sqlite3_column_bytes(select_, 0)));
      benchmark::DoNotOptimize(record.data());
    }
    sqlite3_reset(select_);
    return records;
  }

 private:
  void Run(const char* sql) { Must(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }

  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    Must(sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
    return statement;
  }

  static bool Step(sqlite3_stmt* statement) {
    const bool is_done = sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_reset(statement);
    return is_done;
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  std::uint32_t slot_ = 0;
};

void AppendSqlite(benchmark::State& state) {
  const Directory directory;
  Sqlite database(directory.File("r.db"));
  for (auto _ : state) {
    if (!database.Append()) state.SkipWithError("insert");
  }
}
#endif

#ifdef QX_HAVE_LMDB
// Stores the ring as a map from slot to record.
class Lmdb {
 public:
  explicit Lmdb(const std::string& file) {
    bool ok = mdb_env_create(&env_) == 0 && mdb_env_set_mapsize(env_, std::size_t{1} << 28) == 0;
    ok = ok && mdb_env_open(env_, file.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600) == 0;
    MDB_txn* txn = nullptr;
    ok = ok && mdb_txn_begin(env_, nullptr, 0, &txn) == 0;
    ok = ok && mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY | MDB_CREATE, &records_) == 0;
    Must(ok && mdb_txn_commit(txn) == 0, "open the database");
  }
  ~Lmdb() { mdb_env_close(env_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  // One transaction.
  bool AppendBatch(std::size_t records) {
    MDB_txn* txn = nullptr;
    bool ok = mdb_txn_begin(env_, nullptr, 0, &txn) == 0;
    for (std::size_t i = 0; ok && i < records; ++i) {
      MDB_val key{sizeof slot_, &slot_};
      MDB_val value{kRecord.size(), const_cast<char*>(kRecord.data())};
      ok = mdb_put(txn, records_, &key, &value, 0) == 0;
      slot_ = slot_ + 1 < kSlots ? slot_ + 1 : 0;
    }
    return ok && mdb_txn_commit(txn) == 0;
  }

  std::uint32_t ReadAll(std::string& record) {
    MDB_txn* txn = nullptr;
    MDB_cursor* cursor = nullptr;
    Must(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn) == 0, "begin");
    Must(mdb_cursor_open(txn, records_, &cursor) == 0, "cursor");
    std::uint32_t records = 0;
    MDB_val key;
    MDB_val value;
    for (; mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0; ++records) {
      record.assign(static_cast<const char*>(value.mv_data), value.mv_size);
      benchmark::DoNotOptimize(record.data());
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    return records;
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_dbi records_ = 0;
  std::uint32_t slot_ = 0;
};
#endif

// Does the least that an append has to do: three system calls, for record, slot and header.
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

// The rows append_batch append this many records in one call, or in single calls for comparison.
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

template <typename Database>
void AppendBatchPeer(benchmark::State& state) {
  const Directory directory;
  Database database(directory.File("r.db"));
  for (auto _ : state) {
    if (!database.AppendBatch(kBatch)) state.SkipWithError("append");
  }
}

// Reads all records of a full ring in order and copies each one into a string. The report is already open, and its
// oldest record is in the middle of the slots.
void ReadReportQx(benchmark::State& state) {
  const Directory directory;
  qx::Writer writer;
  Must(!writer.Open(directory.File("r"), kSlots).Failed(), "create the store");
  const std::vector<std::string_view> records(kSlots + kSlots / 2, kRecord);
  Must(!writer.Append(records).Failed(), "append");
  qx::Reader reader;
  Must(!reader.Open(directory.File("r")).Failed(), "open the report");
  std::string text;
  for (auto _ : state) {
    std::uint32_t whole = 0;
    if (reader.Refresh().Failed()) state.SkipWithError("refresh");
    for (const qx::RecordView& record : reader) {
      whole += record.IsWhole() ? 1 : 0;
      text.assign(record.text);
      benchmark::DoNotOptimize(text.data());
    }
    if (whole != kSlots) state.SkipWithError("records are missing");
  }
}

// Reads the same records with Next, each one once, like a reader that follows the report.
void FollowReportQx(benchmark::State& state) {
  const Directory directory;
  qx::Writer writer;
  Must(!writer.Open(directory.File("r"), kSlots).Failed(), "create the store");
  const std::vector<std::string_view> records(kSlots + kSlots / 2, kRecord);
  Must(!writer.Append(records).Failed(), "append");
  for (auto _ : state) {
    qx::Reader reader;
    std::uint32_t whole = 0;
    if (reader.Open(directory.File("r")).Failed()) state.SkipWithError("open");
    while (const auto record = reader.Next()) whole += record->IsWhole() ? 1 : 0;
    if (whole != kSlots) state.SkipWithError("records are missing");
  }
}

template <typename Database>
void ReadReportPeer(benchmark::State& state) {
  const Directory directory;
  Database database(directory.File("r.db"));
  Must(database.AppendBatch(kSlots), "fill the database");
  std::string record;
  for (auto _ : state) {
    if (database.ReadAll(record) != kSlots) state.SkipWithError("records are missing");
  }
}

BENCHMARK(AppendBatchQx)->Name("append_batch/qx");
BENCHMARK(AppendBatchSingly)->Name("append_batch/single_appends");
#ifdef QX_HAVE_SQLITE3
BENCHMARK(AppendBatchPeer<Sqlite>)->Name("append_batch/sqlite");
#endif
#ifdef QX_HAVE_LMDB
BENCHMARK(AppendBatchPeer<Lmdb>)->Name("append_batch/lmdb");
#endif
BENCHMARK(ReadReportQx)->Name("read_report/qx");
BENCHMARK(FollowReportQx)->Name("follow_report/qx");
#ifdef QX_HAVE_SQLITE3
BENCHMARK(ReadReportPeer<Sqlite>)->Name("read_report/sqlite");
#endif
#ifdef QX_HAVE_LMDB
BENCHMARK(ReadReportPeer<Lmdb>)->Name("read_report/lmdb");
#endif
BENCHMARK(AppendQx)->Name("append/qx");
BENCHMARK(AppendStdio)->Name("append/stdio");
#ifdef QX_HAVE_SQLITE3
BENCHMARK(AppendSqlite)->Name("append/sqlite");
#endif
BENCHMARK(AppendLimit)->Name("append/limit");

}  // namespace
