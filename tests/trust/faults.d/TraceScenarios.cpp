// Scenarios for the trace facility: its start, and a log or a ring that is full.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "debug/Debug.h"
#include "debug/RingFormat.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

namespace {

constexpr int kCallersErrno = 4711;
constexpr std::uintmax_t kLogBytesMax = 4000;
constexpr std::uint32_t kRingBytes = 16384;

bool is_started = false;
bool keeps_errno = true;

void Prepare(const std::string& directory) {
  setenv("QX_LOG_RINGBUF_DIR", directory.c_str(), 1);
  setenv("QX_LOG_DEBUG_LEVEL", "3", 1);
  setenv("QX_LOG_FILE_MAX_SIZE", std::to_string(kLogBytesMax).c_str(), 1);
}

void Print(int first, int end) {
  for (int i = first; i < end; ++i) {
    errno = kCallersErrno;
    Debug.Print(1, "\nFaults              : entry %d of a length that fills a small file before long", i);
    keeps_errno = keeps_errno && errno == kCallersErrno;
  }
}

bool Holds(const std::string& path, const std::string& text) {
  return test::Exists(path) && test::ReadFile(path).find(text) != std::string::npos;
}

void Stop() {
  (void)Debug.ForceMaxDebug(false);
  Debug.ClassInit();
}

// The start, with a log file and a ring.

std::string RingPath(const std::string& directory) { return directory + "/log.faults_a"; }
std::string LogPath(const std::string& directory) { return directory + "/log.faults"; }

void PrepareStart(const std::string& directory) {
  Prepare(directory);
  setenv("QX_LOG_RINGBUF_WEIGHT", "1", 1);
  setenv("TraceFileLimit", "1", 1);
}

void RunStart(const std::string&) {
  is_started = Debug.Init("Faults");
  Debug.SetApplInitDone();
  Print(1, 3);
}

bool IsWholeRing(const std::string& path) {
  const std::string ring = test::ReadFile(path);
  if (ring.size() != std::size_t{256} * 4096) return false;
  const auto position = debug::ReadRingNumber(std::string_view(ring).substr(debug::kRingPositionOffset, 16));
  return position && ring.compare(*position, debug::kRingTerminator.size(), debug::kRingTerminator) == 0;
}

// True if others may write the file, or if it has a second name. Such a file must not be used.
bool IsForeign(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && (status.st_nlink != 1 || (status.st_mode & 022) != 0);
}

Finding JudgeStart(const std::string& directory) {
  if (!keeps_errno) return Broken("a trace call changed errno");
  if (IsForeign(LogPath(directory)) || IsForeign(RingPath(directory))) return Broken("others may write the traces");
  const std::string ring = RingPath(directory);
  const bool has_part = test::Exists(ring) && !IsWholeRing(ring);
  const bool is_traced = Holds(ring, "entry 2") || Holds(LogPath(directory), "entry 2");
  Prepare(directory);
  if (!Debug.Init("Faults")) return Broken("the next start does not work");
  Print(3, 5);
  Stop();
  if (!test::Exists(ring) || !IsWholeRing(ring) || !Holds(ring, "entry 4")) return Broken("the next start has no ring");
  if (has_part) return Noted("a part of a ring that could not be removed; the next start creates it again");
  return is_traced ? Kept() : Noted("neither ring nor log can be made or written: the entries are lost");
}

// A log file that is full again and again.

void PrepareLogWrap(const std::string& directory) {
  Prepare(directory);
  is_started = Debug.Init("Faults");
  Debug.SetApplInitDone();
}

void RunWrap(const std::string&) { Print(1, 150); }

Finding JudgeLogWrap(const std::string& directory) {
  if (!keeps_errno) return Broken("a trace call changed errno");
  const std::uintmax_t head = 4096;
  if (std::filesystem::file_size(LogPath(directory)) > 2 * (kLogBytesMax + head)) {
    return Noted("a log whose position cannot be set back is written on where it is");
  }
  Print(1000, 1010);
  return Holds(LogPath(directory), "entry 1009") ? Kept() : Broken("tracing does not continue");
}

// A ring that is full again and again.

std::string SmallRing(const std::string& directory) { return directory + "/small_ring"; }

void PrepareRingWrap(const std::string& directory) {
  PrepareLogWrap(directory);
  if (!Debug.InitRingBuffer(SmallRing(directory).c_str(), kRingBytes)) std::abort();
}

// Each entry goes to ring and log. If the size of the ring cannot be read, the ring is not used any more.
void RunRingWrap(const std::string&) {
  for (int i = 1; i < 150; ++i) {
    errno = kCallersErrno;
    Debug.PrintAlways("\nFaults              : entry %d of a length that fills a small file before long", i);
    keeps_errno = keeps_errno && errno == kCallersErrno;
  }
}

bool HasEntryTwice(const std::string& path) {
  const std::string text = test::ReadFile(path);
  for (int i = 1; i < 150; ++i) {
    const std::string entry = ": entry " + std::to_string(i) + " of";
    const std::size_t at = text.find(entry);
    if (at != std::string::npos && text.find(entry, at + 1) != std::string::npos) return true;
  }
  return false;
}

Finding JudgeRingWrap(const std::string& directory) {
  if (!keeps_errno) return Broken("a trace call changed errno");
  if (HasEntryTwice(LogPath(directory))) return Broken("an entry is in the log twice");
  Print(1000, 1003);
  if (Holds(SmallRing(directory), "entry 1002")) return Kept();
  return Holds(LogPath(directory), "entry 1002")
             ? Noted("a ring whose size cannot be read at a wrap is given up for the log")
             : Broken("tracing does not continue");
}

// A second ring, in place of the first.

char second_ring[256];  // not a string: its allocation would fail, too

void PrepareSecondRing(const std::string& directory) {
  PrepareRingWrap(directory);
  (void)std::snprintf(second_ring, sizeof second_ring, "%s/second_ring", directory.c_str());
  is_started = false;
}

void RunSecondRing(const std::string&) {
  is_started = Debug.InitRingBuffer(second_ring, kRingBytes);
  Print(1, 3);
}

Finding JudgeSecondRing(const std::string& directory) {
  if (!keeps_errno) return Broken("a trace call changed errno");
  if (is_started) return Holds(second_ring, "entry 2") ? Kept() : Broken("the new ring has no entries");
  if (Holds(SmallRing(directory), "entry 2")) return Broken("entries go to the ring that was left");
  return Holds(LogPath(directory), "entry 2") ? Kept()
                                              : Noted("neither ring nor log can be written: the entries are lost");
}

}  // namespace

std::vector<Scenario> TraceScenarios() {
  return {
      {.name = "trace set-up",
       .promise = "no caller notices; no half ring file is left; others cannot write the files; the next start has log "
                  "and ring",
       .prepare = PrepareStart,
       .run = RunStart,
       .finish = Stop,
       .judge = JudgeStart},
      {.name = "trace log wrap",
       .promise = "no caller notices, errno is kept, the file keeps its bound, the next entries are there",
       .prepare = PrepareLogWrap,
       .run = RunWrap,
       .finish = nullptr,
       .judge = JudgeLogWrap},
      {.name = "trace ring wrap",
       .promise = "no caller notices, errno is kept, the next entries are there, none is in the log twice",
       .prepare = PrepareRingWrap,
       .run = RunRingWrap,
       .finish = nullptr,
       .judge = JudgeRingWrap},
      {.name = "trace ring set up again",
       .promise = "no caller notices, errno is kept, the next entries are in the new ring or in the log",
       .prepare = PrepareSecondRing,
       .run = RunSecondRing,
       .finish = Stop,
       .judge = JudgeSecondRing},
  };
}

}  // namespace qx::trust
