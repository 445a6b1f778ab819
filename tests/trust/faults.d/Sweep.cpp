#include "tests/trust/faults.d/Sweep.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/Shared.h"
#include "tests/trust/tracing.d/CallTracer.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <set>
#include <stdexcept>

namespace qx::trust {

namespace {

using test::AllocationFault;

constexpr unsigned kSecondsMax = 30;
constexpr long kCallsMax = 2000;  // of one kind; more means an endless loop
constexpr std::size_t kReportsMax = 3;

// Calls that fail in the same ways. The errors of the quick form come first, up to `quick_errors`.
struct CallKind {
  const char* name;
  std::vector<long> numbers;
  std::vector<int> errors;
  std::size_t quick_errors;
  std::vector<std::uint64_t> short_bytes;  // the call handles only so many bytes: legal, so the work must succeed
  bool is_interruptible;
};

const std::vector<CallKind>& CallKinds() {
  static const std::vector<CallKind> kinds = {
      {"open",
       {SYS_open, SYS_openat, SYS_openat2, SYS_creat},
       {EMFILE, ENOSPC, ENFILE, EIO, EACCES, ENOMEM},
       2,
       {},
       true},
      {"read", {SYS_read, SYS_pread64, SYS_readv, SYS_preadv}, {EIO, ENOMEM}, 1, {1, 7}, true},
      {"write", {SYS_write, SYS_pwrite64, SYS_writev, SYS_pwritev}, {ENOSPC, EIO, EDQUOT, EFBIG}, 2, {1, 7}, true},
      {"sync", {SYS_fsync, SYS_fdatasync, SYS_syncfs, SYS_msync}, {EIO, ENOSPC}, 1, {}, false},
      {"close", {SYS_close}, {EIO, ENOSPC, EDQUOT}, 1, {}, true},
      {"rename", {SYS_rename, SYS_renameat, SYS_renameat2, SYS_link, SYS_linkat}, {EIO, ENOSPC, EACCES}, 1, {}, false},
      {"remove", {SYS_unlink, SYS_unlinkat, SYS_rmdir}, {EIO, EBUSY, EACCES}, 1, {}, false},
      {"mmap", {SYS_mmap}, {ENOMEM, ENODEV}, 1, {}, false},
      {"truncate", {SYS_ftruncate, SYS_fallocate}, {ENOSPC, EIO, EFBIG}, 1, {}, true},
      {"chmod",
       {SYS_chmod, SYS_fchmod, SYS_fchmodat, SYS_fchown, SYS_chown, SYS_utimensat},
       {EPERM, EIO},
       1,
       {},
       false},
      {"copy", {SYS_copy_file_range}, {ENOSPC, EIO, EXDEV, EOPNOTSUPP}, 2, {1, 4097}, true},
      {"status", {SYS_stat, SYS_lstat, SYS_fstat, SYS_newfstatat, SYS_statx}, {EIO, ENOMEM, EACCES}, 1, {}, false},
      {"list", {SYS_getdents64}, {EIO, ENOMEM}, 1, {}, false},
      {"mkdir", {SYS_mkdir, SYS_mkdirat}, {ENOSPC, EACCES}, 1, {}, false},
      {"seek and lock", {SYS_lseek, SYS_flock, SYS_fcntl}, {EIO, ENOMEM}, 1, {}, false},
  };
  return kinds;
}

// One fault. If it has no kind of call, allocations fail.
struct Fault {
  const CallKind* kind = nullptr;
  Treatment treatment;
  bool lasts = false;

  [[nodiscard]] std::string Text(long nth) const {
    std::string text = std::string(kind != nullptr ? kind->name : "allocation") + " " + std::to_string(nth);
    if (kind == nullptr) return text + (lasts ? " and all later ones fail" : " fails");
    if (treatment.kind == Treatment::Kind::kCutShort)
      return text + " handles " + std::to_string(treatment.bytes) + " bytes";
    return text + (lasts ? " and all later ones fail: " : " fails: ") + strerrorname_np(treatment.error);
  }
};

// A failing close has closed the descriptor nevertheless.
Treatment::Kind FailureOf(const CallKind& kind) {
  return kind.numbers.front() == SYS_close ? Treatment::Kind::kMakeAndFail : Treatment::Kind::kRefuse;
}

void AddFaultsOf(const CallKind& kind, SweepForm form, std::vector<Fault>& faults) {
  const std::size_t errors = form == SweepForm::kQuick ? kind.quick_errors : kind.errors.size();
  for (std::size_t i = 0; i < errors; ++i) {
    for (const bool lasts : {false, true}) {
      faults.push_back({&kind, {.kind = FailureOf(kind), .error = kind.errors[i], .bytes = 0}, lasts});
    }
  }
  if (kind.is_interruptible) {
    faults.push_back({&kind, {.kind = FailureOf(kind), .error = EINTR, .bytes = 0}, false});
  }
  for (const std::uint64_t bytes : kind.short_bytes) {
    faults.push_back({&kind, {.kind = Treatment::Kind::kCutShort, .error = 0, .bytes = bytes}, false});
  }
}

std::vector<Fault> AllFaults(SweepForm form) {
  std::vector<Fault> faults = {{nullptr, {}, false}, {nullptr, {}, true}};
  for (const CallKind& kind : CallKinds()) AddFaultsOf(kind, form, faults);
  return faults;
}

// The results of the child.
struct Shared {
  std::atomic<int> exempt_descriptor{-1};
  std::atomic<bool> is_met{false};
  std::atomic<int> kind{-1};  // of the finding; -1: it did not come that far
  char text[4000] = {};
};

Shared& SharedBlock() {
  static const test::Shared<Shared> block;
  return *block;
}

std::set<std::string> OpenDescriptors() {
  std::set<std::string> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the descriptor of the listing itself
    const std::string target = std::filesystem::read_symlink(entry, gone);
    if (target.find("/proc/") != 0) open.insert(entry.path().filename().string() + " " + target);
  }
  return open;
}

// The descriptors that are open now and were not open before.
std::string Leaked(const std::set<std::string>& before) {
  for (const std::string& descriptor : OpenDescriptors()) {
    if (!before.contains(descriptor)) return descriptor;
  }
  return {};
}

void StoreFinding(const Finding& finding) {
  Shared& shared = SharedBlock();
  finding.text.copy(shared.text, sizeof shared.text - 1);
  shared.kind = static_cast<int>(finding.kind);
}

// Runs the scenario. True if it has thrown std::bad_alloc.
bool RunWithFaults(const Scenario& scenario, const std::string& directory, const AllocationFault& allocation) {
  bool has_thrown = false;
  const test::FailingAllocation failing(allocation);
  BeginWatched();
  try {
    scenario.run(directory);
  } catch (const std::bad_alloc&) {
    has_thrown = true;
  }
  EndWatched();
  return has_thrown;
}

void RunAndJudge(const Scenario& scenario, const std::string& directory, const AllocationFault& allocation) {
  const std::set<std::string> before_all = OpenDescriptors();
  scenario.prepare(directory);
  std::set<std::string> before = OpenDescriptors();
  before.insert(before_all.begin(), before_all.end());
  const bool has_thrown = RunWithFaults(scenario, directory, allocation);
  if (scenario.finish != nullptr) scenario.finish();
  const std::string leaked = Leaked(before);
  Finding finding = scenario.judge(directory);
  if (finding.kind == Finding::Kind::kKept && has_thrown)
    finding = Noted("memory ran out: std::bad_alloc for the caller");
  StoreFinding(leaked.empty() ? finding : Broken("still open: " + leaked));
}

bool UsesExemptDescriptor(const SystemCall& call) {
  const int exempt = SharedBlock().exempt_descriptor;
  return exempt >= 0 && call.number != SYS_openat && call.number != SYS_openat2 && call.number != SYS_close &&
         static_cast<int>(call.arguments[0]) == exempt;
}

void RunInChild(const Scenario& scenario, const std::string& directory, const AllocationFault& allocation) {
  try {
    RunAndJudge(scenario, directory, allocation);
  } catch (const std::exception& error) {
    StoreFinding(Broken(error.what()));
  }
}

Watch WatchFor(const Fault& fault, long nth) {
  auto at_entry = [&fault, nth, calls = 0L](const SystemCall& call) mutable {
    const std::vector<long>& numbers = fault.kind->numbers;
    if (std::find(numbers.begin(), numbers.end(), call.number) == numbers.end()) return Treatment();
    if (UsesExemptDescriptor(call) || ++calls < nth || (calls > nth && !fault.lasts)) return Treatment();
    SharedBlock().is_met = true;
    return fault.treatment;
  };
  return {.at_entry = at_entry, .at_exit = {}};
}

bool is_transient_open_fault = false;

bool IsTransientOpen(const Fault& fault) {
  const bool is_open = fault.kind != nullptr && fault.kind->numbers.front() == SYS_open;
  const int error = fault.treatment.error;
  return is_open && !fault.lasts && (error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR);
}

ChildEnd RunStep(const Scenario& scenario, const Fault& fault, long nth, const std::string& directory) {
  new (&SharedBlock()) Shared;
  std::filesystem::remove_all(directory);
  std::filesystem::create_directory(directory);
  is_transient_open_fault = IsTransientOpen(fault);
  if (fault.kind == nullptr) {
    const AllocationFault allocation = {.allocator = test::Allocator::kMalloc,
                                        .nth = nth,
                                        .lasts = fault.lasts,
                                        .in_all_threads = true,
                                        .failed = &SharedBlock().is_met};
    return RunChild([&] { RunInChild(scenario, directory, allocation); }, nullptr, kSecondsMax);
  }
  const Watch watch = WatchFor(fault, nth);
  return RunChild([&] { RunInChild(scenario, directory, {.nth = 0}); }, &watch, kSecondsMax);
}

void Report(SweepResult& result, const std::string& text) {
  ++result.broken;
  if (result.reports.size() < kReportsMax) result.reports.push_back(text);
}

// Runs one step. False if the fault did not occur, because the scenario has no nth call of this kind.
bool Step(const Scenario& scenario, const Fault& fault, long nth, SweepResult& result) {
  const std::string directory = "/var/log/faults." + std::to_string(getpid());
  const ChildEnd end = RunStep(scenario, fault, nth, directory);
  const Shared& shared = SharedBlock();
  const bool is_judged = end.IsGood() && shared.kind >= 0;
  const std::string where = std::string(scenario.name) + ", " + fault.Text(nth) + ": ";
  const bool is_met = shared.is_met;
  if (is_met) ++result.steps;
  if (!is_judged) {
    Report(result, where + end.Text());
  } else if (shared.kind == static_cast<int>(Finding::Kind::kBroken)) {
    Report(result, where + shared.text);
  } else if (is_met && shared.kind == static_cast<int>(Finding::Kind::kNoted)) {
    ++result.noted[shared.text];
  }
  return is_met;
}

}  // namespace

bool IsTransientOpenFault() { return is_transient_open_fault; }

void ExemptDescriptor(int descriptor) { SharedBlock().exempt_descriptor = descriptor; }

SweepResult Sweep(const Scenario& scenario, SweepForm form) {
  SweepResult result;
  for (const Fault& fault : AllFaults(form)) {
    long nth = 1;
    while (nth <= kCallsMax && Step(scenario, fault, nth, result)) ++nth;
    if (nth > kCallsMax) Report(result, std::string(scenario.name) + ": never passes untouched");
  }
  return result;
}

}  // namespace qx::trust
