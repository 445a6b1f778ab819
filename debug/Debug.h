// The trace facility through which every layer of the module reports what it does.
//
// An entry has a level, and is dropped if that is above the current level. The other entries go to the log file
// "log.NAME", which wraps in place, or to the ring file "log.NAME_a", which is mapped and outlives the process. Callers
// write QX_TRACE(level, "\nMODULE Function   : text %d", value): one flag is tested before anything is computed. Files,
// environment and output format are described in docs/trace.md.
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
// Threads: any thread may trace; one recursive lock guards output and configuration, so tracing from within a traced
// operation is fine. Init may be called again: it closes the earlier files.
// Owns: the log file, the ring file and the settings.
// Failure: no call raises an error, and none changes errno: callers print it after they have traced. Failures
// of the facility itself are reported in the system log, those of the ring file in the log file.
// Outside its lifetime the object is inert: the active flag is false, and no non-virtual call prints anything. So it is
// before the constructor, when the memory of a global is zero, and after the destructor.
class CDebug : public CDebugTraceConfig {
 public:
  // Trace targets, as SetTarget, PrintIt and WriteLogHeader take them.
  static constexpr std::uint32_t kTargetNone = 0;
  static constexpr std::uint32_t kTargetLogFile = 1;
  static constexpr std::uint32_t kTargetRingBuffer = 2;

  CDebug();

  // Order is interface: the destructor, then these six, are the first slots of the virtual table.
  ~CDebug() override;

  // Whether this object leads its trace: always true. [any thread]
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

  // True when the current level is not 0. The flag that is tested before a trace call is prepared. [any thread]
  // Relaxed: a thread that sees a change late traces one entry more or less, nothing else depends on it.
  [[nodiscard]] bool IsActive() const noexcept { return active_.load(std::memory_order_relaxed); }

  // True when an entry of `level` (above 0) would be written: for code that works in another way if a trace shows it.
  // [any thread]
  [[nodiscard]] bool IsActive(std::uint32_t level) const noexcept {
    return current_level_.load(std::memory_order_relaxed) >= level;
  }

  // Starts the facility for the application `app_name`: reads files and environment, opens the log and, when tracing is
  // on and a ring configured, the ring file, which then is the target. Files take the name in lower case. False:
  // `app_name` is null or memory ran out, and tracing is off; a log or ring file that cannot be opened is
  // not such a failure. [any thread]
  bool Init(const char* app_name);

  // Reads the settings files and the environment for Init. Returns true. [lock held: trace]
  bool ReadDebugConfig(const char* app_name);

  // Puts every setting and counter to its initial value and closes log and ring. [lock held: trace]
  void ClassInit();

  // Writes an entry to the current target unless `level` is above the current level. [any thread]
  void PrintV(std::uint32_t level, const char* format, std::va_list args) __attribute__((format(printf, 3, 0)));

  // Writes an entry to `target`, or to the current one for 0, whatever the level. [lock held: trace]
  void PrintIt(std::uint32_t target, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // Writes an entry to the log file only, whatever the level. [any thread]
  void PrintToLogFile(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // Writes one entry to the log file: header, text of at most 1024 characters, line feed. Leading line feeds of the
  // format are skipped, unless it has nothing else. Nothing when no log is open or `format` is null. [lock held: trace]
  void TraceToLogFile(const char* format, std::va_list args, const char* module) __attribute__((format(printf, 2, 0)));

  // Opens or creates the ring file at `path`, of `size` bytes (at least 4096), and makes it the target. False: the log
  // says why, and no ring is open; if a ring was the target, the log replaces it. [any thread]
  bool InitRingBuffer(const char* path, std::uint32_t size);

  // Writes one entry to the ring: like TraceToLogFile, but a text of up to a tenth of the ring is written whole.
  // Nothing when no ring is open or `format` is null. [lock held: trace]
  void TraceToRingBuffer(const char* format, std::va_list args, const char* module)
      __attribute__((format(printf, 2, 0)));

  // Sets where entries go from now on. [any thread]
  void SetTarget(std::uint32_t target);

  // With false: level 0, also while settings files set other levels. With true: the level that was configured, or that
  // a settings file has set meanwhile. Returns true. [any thread]
  bool ForceMaxDebug(bool on);

  // Keeps the program's arguments, which must live as long as this object, and traces them if there are any: to the
  // log, and to the ring when that is the target, but never to standard error. [any thread]
  void SetMainParams(int argc, char** argv);

  // Ends the start: the present content of the log is its head, which wraps never overwrite. The same for the ring if
  // it is the target, has not wrapped since it was opened, and has more than 1 MiB left. [any thread]
  void SetApplInitDone();

  // Writes the header block (command line, environment, settings) to `target`; if the no-header flag is 0, the lines
  // also go to standard error, but not those for a ring, which repeats them at each wrap. [any thread]
  void WriteLogHeader(std::uint32_t target);

  // Writes the header of an entry made now by this thread into `buffer`, cut to `size` with its NUL, and returns its
  // length. `module` null: the application's name. [any thread]
  std::size_t SetEntryHeader(char* buffer, std::size_t size, const char* module);

  // Appends "_" and `app_name` in upper case to the text in `buffer` of `size` bytes: cut to fit, always ended with
  // NUL. Nothing for a null or empty name. [any thread]
  static void BuildAppVarName(char* buffer, std::size_t size, const char* app_name);

  // Lower-cases the ASCII letters of `text` in place; null is allowed. [any thread]
  static void StringToLower(char* text);

 protected:
  // Checks the settings files if the interval has passed at `now`. [any thread]
  void CheckDynamicUpdate(std::time_t now);

 private:
  static constexpr std::size_t kEntryTextCharsMax = 1024;
  static constexpr std::size_t kTruncationCharsMax = 64;  // of the line that reports a cut text in the ring
  static constexpr std::size_t kEntryBytesMax =
      qx::debug::kEntryHeaderCharsMax + kEntryTextCharsMax + kTruncationCharsMax;

  // The targets of PrintAlways: the log, and the ring if it is the target.
  static constexpr std::uint32_t kTargetAll = ~std::uint32_t{0};

  struct Entry {
    std::string_view text;  // in entry_, except for a long one
    std::size_t header_length;
    std::size_t whole_length;  // of the text, if that was cut; else 0
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

  // The levels, the flag, the target and the time of the last check are read without the lock. None depends on another,
  // so relaxed order is enough.
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

// One object for each binary, defined in a source of that binary with init_priority(101): it lives before and after
// everything that traces.
extern CDebug Debug;

// Traces at `level` when tracing is on; the arguments are not evaluated otherwise.
#define QX_TRACE(level, ...)                               \
  do {                                                     \
    if (Debug.IsActive()) Debug.Print(level, __VA_ARGS__); \
  } while (false)
