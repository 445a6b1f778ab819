// The trace facility, with which every layer of the module reports what it does.
//
// An entry has a level, and is dropped if its level is above the current one. The other entries go to the log file
// "log.NAME", which wraps in place, or to the ring file "log.NAME_a", which is mapped into memory and stays after the
// process. Callers write QX_TRACE(level, " MODULE Function : text %d", value): only one flag is tested if tracing is
// off. Files, environment and output format are described in docs/trace.md.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/CriticalSection.h"
#include "debug/DebugTraceConfig.h"
#include "debug/EntryHeader.h"
#include "debug/LogFileSink.h"
#include "debug/LogHeader.h"
#include "debug/RingBufferSink.h"

// The trace facility. Constructed inactive; Init starts it.
//
// Threads: any thread may trace; one recursive lock guards output and configuration, so a thread that is inside a trace
// call may trace. Init may be called again: it closes the earlier files.
// Owns: the log file, the ring file and the settings.
// Failure: no call raises an error or changes errno, because callers print errno after they have traced it. Failures of
// the facility itself are reported in the system log, those of the ring file in the log file. Before the constructor
// (when the memory of a global is zero) and after the destructor, the object does nothing: the active flag is false,
// and no non-virtual call prints anything.
class CDebug : public CDebugTraceConfig {
 public:
  // Trace targets, for SetTarget, PrintIt and WriteLogHeader.
  static constexpr std::uint32_t kTargetNone = 0;
  static constexpr std::uint32_t kTargetLogFile = 1;
  static constexpr std::uint32_t kTargetRingBuffer = 2;

  CDebug();

  // Order is interface: the destructor and the six virtual functions after it are the first slots of the virtual table.
  ~CDebug() override;

  // Always true. [any thread]
  virtual bool IsMaster();

  // Writes an entry to the current target unless `level` is above the current level. [any thread]
  virtual void Print(std::uint32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // Writes an entry whatever the level: to the log file if one is open, and to the ring buffer when that is the target.
  // The second form takes a level and ignores it. [any thread]
  virtual void PrintAlways(const char* format, ...) __attribute__((format(printf, 2, 3)));
  virtual void PrintAlways(std::uint32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // PrintAlways with `module` as the module column; null: the application's name. [any thread]
  virtual void PrintAlwaysV(const char* format, std::va_list args, const char* module)
      __attribute__((format(printf, 2, 0)));

  // Like PrintAlwaysV, but to the current target only. [any thread]
  virtual void ClientPrintV(const char* format, std::va_list args, const char* module)
      __attribute__((format(printf, 2, 0)));

  // True when the current level is not 0. QX_TRACE tests this flag before it evaluates its arguments. [any thread]
  // Relaxed order: if a thread sees a change late, it traces some entries more or fewer, and nothing else depends on
  // it.
  [[nodiscard]] bool IsActive() const noexcept { return active_.load(std::memory_order_relaxed); }

  // True when an entry of `level` (above 0) would be written. For code that must do more, or work differently, for a
  // trace. [any thread]
  [[nodiscard]] bool IsActive(std::uint32_t level) const noexcept {
    return current_level_.load(std::memory_order_relaxed) >= level;
  }

  // Starts the facility for the application `app_name`: reads files and environment, opens the log and, when tracing is
  // on and a ring is configured, the ring file, which is then the target. The names of the files have `app_name` in
  // lower case. False: `app_name` is null or memory ran out; tracing is off then. If a log or ring file cannot be
  // opened, the result is still true. [any thread]
  bool Init(const char* app_name);

  // Reads the settings files and the environment for Init. Returns true. [lock held: trace]
  bool ReadDebugConfig(const char* app_name);

  // Puts every setting and counter to its initial value and closes log and ring. [lock held: trace]
  void ClassInit();

  // Writes an entry to the current target unless `level` is above the current level. [any thread]
  void PrintV(std::uint32_t level, const char* format, std::va_list args) __attribute__((format(printf, 3, 0)));

  // Writes an entry to `target`, or to the current target if `target` is 0, whatever the level. [lock held: trace]
  void PrintIt(std::uint32_t target, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // Writes an entry to the log file only, whatever the level. [any thread]
  void PrintToLogFile(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // Writes one entry to the log file: header, text of at most 1024 characters, line feed. Leading line feeds of the
  // format are skipped, unless it has nothing else. Writes nothing when no log is open or `format` is null. [lock held:
  // trace]
  void TraceToLogFile(const char* format, std::va_list args, const char* module) __attribute__((format(printf, 2, 0)));

  // Opens or creates the ring file at `path`, of `size` bytes (at least 4096), and makes it the target. False: the log
  // says why, and no ring is open; if a ring was the target, the log replaces it. [any thread]
  bool InitRingBuffer(const char* path, std::uint32_t size);

  // Writes one entry to the ring: like TraceToLogFile, but a text of up to a tenth of the ring is written whole. Writes
  // nothing when no ring is open or `format` is null. [lock held: trace]
  void TraceToRingBuffer(const char* format, std::va_list args, const char* module)
      __attribute__((format(printf, 2, 0)));

  // Sets the target of all later entries. [any thread]
  void SetTarget(std::uint32_t target);

  // With false, sets level 0, which stays even if settings files set other levels. With true, sets the configured
  // level, or the one that a settings file has set meanwhile. Returns true. [any thread]
  bool ForceMaxDebug(bool on);

  // Keeps the program's arguments, which must live as long as this object, and traces them if there are any: to the
  // log, and to the ring when that is the target, but never to standard error. [any thread]
  void SetMainParams(int argc, char** argv);

  // Ends the start of the application: the present content of the log becomes its head, which a wrap never overwrites.
  // The same happens for the ring, if it is the target, has not wrapped since it was opened, and has more than 1 MiB
  // left. [any thread]
  void SetApplInitDone();

  // Writes the header block (command line, environment, settings) to `target`; If the no-header flag is 0, the lines
  // are also written to standard error, except the lines for a ring, because these are repeated at each wrap. [any
  // thread]
  void WriteLogHeader(std::uint32_t target);

  // Writes the header of an entry made now by this thread into `buffer`, cut to `size` with its NUL, and returns its
  // length. `module` null: the application's name. [any thread]
  std::size_t SetEntryHeader(char* buffer, std::size_t size, const char* module);

  // Appends "_" and `app_name` in upper case to the text in `buffer` of `size` bytes: the result is cut to fit, and
  // always ends with NUL. Does nothing for a null or empty name. [any thread]
  static void BuildAppVarName(char* buffer, std::size_t size, const char* app_name);

  // Lower-cases the ASCII letters of `text` in place; null is allowed. [any thread]
  static void StringToLower(char* text);

 protected:
  // Checks the settings files if the interval has passed at `now`. [any thread]
  void CheckDynamicUpdate(std::time_t now);

 private:
  static constexpr std::size_t kEntryTextCharsMax = 1024;
  static constexpr std::size_t kTruncationCharsMax = 64;  // of the message about a cut text in the ring
  static constexpr std::size_t kEntryBytesMax =
      qx::debug::kEntryHeaderCharsMax + kEntryTextCharsMax + kTruncationCharsMax;

  // The targets of PrintAlways: the log, and the ring if it is the target.
  static constexpr std::uint32_t kTargetAll = ~std::uint32_t{0};

  struct Entry {
    std::string_view text;  // in entry_, unless the entry is long
    std::size_t header_length;
    std::size_t whole_length;  // of the text, if the text was cut; otherwise 0
  };

  void StartLocked(const char* app_name);
  void StopLocked() noexcept;
  void OpenLog();
  void ComputeRing(const char* app_name);
  void SetLevel(std::uint32_t level) noexcept;
  [[nodiscard]] bool IsUpdateDue(std::time_t now) const noexcept;
  void TakeUpdatedLevel() noexcept;

  std::size_t PutEntryHeaderLocked(char* buffer, std::size_t size, const char* module);
  Entry FormatEntry(const char* format, std::va_list args, const char* module) __attribute__((format(printf, 2, 0)));
  void WriteToAll(const char* format, std::va_list args, const char* module) __attribute__((format(printf, 2, 0)));
  void WriteEntry(std::uint32_t target, const char* format, std::va_list args, const char* module)
      __attribute__((format(printf, 3, 0)));

  bool SetUpRing();
  void LeaveRing() noexcept;
  void TraceRingFailure(const qx::debug::RingBufferSink::OpenResult& result);
  void WriteLongEntry(const Entry& entry, const char* format, std::va_list args) __attribute__((format(printf, 3, 0)));
  Entry TruncatedEntry(const Entry& entry, std::string_view why) noexcept;
  void PutIntoRing(const Entry& entry);
  void PutAfterWrap(Entry entry);
  bool WrapRing(std::size_t entry_size);
  void GiveUpRing(const Entry& entry);
  void MarkRingInitEnd();

  void PrintHeaderLine(std::uint32_t target, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void PrintCommandLine(std::uint32_t target);
  void PrintVariables(std::uint32_t target);
  void PrintFileValues(std::uint32_t target);
  void PrintInternalValues(std::uint32_t target);
  [[nodiscard]] bool GoesToStderr(std::uint32_t target) const noexcept;

  // The levels, the flag, the target and the time of the last check are read without the lock. None of them depends on
  // another, so relaxed order is enough.
  std::atomic<std::uint32_t> current_level_{0};
  std::atomic<std::uint32_t> saved_level_{0};
  std::atomic<bool> active_{false};
  std::string app_name_;
  CCriticalSection lock_;
  std::int32_t process_id_ = 0;
  std::int32_t argument_count_ = 0;
  char** arguments_ = nullptr;
  std::atomic<std::uint32_t> target_{kTargetNone};
  bool is_init_done_ = false;
  qx::debug::LogFileSink log_;
  char entry_[kEntryBytesMax] = {};

  bool is_forced_off_ = false;
  std::atomic<std::int64_t> last_check_{0};
  qx::debug::StampText stamp_;
  qx::debug::KeptHeader kept_header_;
  qx::debug::HeaderVariables header_variables_;
  char start_time_[32] = {};
  std::uint32_t ring_size_ = 0;  // as configured; 0: no ring
  std::string ring_path_;
  qx::debug::RingBufferSink ring_;
};

// One object for each binary, defined in a source of that binary with init_priority(101): so it exists before and after
// everything that traces.
extern CDebug Debug;

// Traces at `level` when tracing is on; the arguments are not evaluated otherwise.
#define QX_TRACE(level, ...)                               \
  do {                                                     \
    if (Debug.IsActive()) Debug.Print(level, __VA_ARGS__); \
  } while (false)
