#include "tests/trust/tracing.d/CallTracer.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "tests/support/Support.h"

#ifndef __x86_64__
#error "the tracer knows the registers of x86-64 only"
#endif

namespace qx::trust {

namespace {

constexpr int kCallStop = SIGTRAP | 0x80;
bool is_watched = false;  // in the child: whether a tracer waits for its marks

[[noreturn]] void Fail(const char* what) { throw std::runtime_error(std::string(what) + ": " + std::strerror(errno)); }

user_regs_struct RegistersOf(pid_t process) {
  user_regs_struct registers;
  if (ptrace(PTRACE_GETREGS, process, nullptr, &registers) != 0) Fail("cannot read registers");
  return registers;
}

void SetRegisters(pid_t process, user_regs_struct& registers) {
  if (ptrace(PTRACE_SETREGS, process, nullptr, &registers) != 0) Fail("cannot set registers");
}

bool TakesVector(long number) {
  return number == SYS_writev || number == SYS_pwritev || number == SYS_readv || number == SYS_preadv;
}

void WriteInto(pid_t process, std::uint64_t address, const void* bytes, std::size_t size) {
  const iovec from = {const_cast<void*>(bytes), size};
  const iovec to = {reinterpret_cast<void*>(address), size};
  if (process_vm_writev(process, &from, 1, &to, 1, 0) != static_cast<ssize_t>(size))
    Fail("cannot write into the child");
}

// Follows one child through its watched part.
class Tracer {
 public:
  Tracer(pid_t child, const Watch& watch) : child_(child), watch_(watch) {}

  // Returns the status that ended the child.
  int Run() {
    for (;;) {
      int status = 0;
      if (waitpid(child_, &status, 0) != child_) Fail("cannot wait");
      if (!WIFSTOPPED(status)) return status;
      Resume(WSTOPSIG(status));
    }
  }

 private:
  void Resume(int signal) {
    if (signal == kCallStop) {
      is_inside_ ? Leave() : Enter();
      Continue(PTRACE_SYSCALL, 0);
    } else if (signal == SIGSTOP) {
      Mark();
    } else {
      Continue(marks_ == 1 ? PTRACE_SYSCALL : PTRACE_CONT, signal);
    }
  }

  void Mark() {
    if (++marks_ == 1) {
      if (ptrace(PTRACE_SETOPTIONS, child_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) Fail("options");
      Continue(PTRACE_SYSCALL, 0);
    } else {
      Continue(PTRACE_DETACH, 0);
    }
  }

  void Continue(__ptrace_request how, int signal) {
    if (ptrace(how, child_, nullptr, signal) != 0 && errno != ESRCH) Fail("cannot go on");
  }

  void Enter() {
    is_inside_ = true;
    user_regs_struct registers = RegistersOf(child_);
    call_ = {.process = child_,
             .number = static_cast<long>(registers.orig_rax),
             .arguments = {registers.rdi, registers.rsi, registers.rdx, registers.r10, registers.r8, registers.r9},
             .result = 0};
    treatment_ = watch_.at_entry(call_);
    if (treatment_.kind == Treatment::Kind::kRefuse) {
      registers.orig_rax = static_cast<unsigned long long>(-1);  // no call has this number
      SetRegisters(child_, registers);
    } else if (treatment_.kind == Treatment::Kind::kCutShort) {
      CutShort(registers);
    }
  }

  void CutShort(user_regs_struct& registers) {
    has_cut_part_ = TakesVector(call_.number);
    if (call_.number == SYS_copy_file_range) {
      registers.r8 = std::min<unsigned long long>(registers.r8, treatment_.bytes);
    } else if (!has_cut_part_) {
      registers.rdx = std::min<unsigned long long>(registers.rdx, treatment_.bytes);
    } else {
      CutFirstPart();
      registers.rdx = 1;
    }
    SetRegisters(child_, registers);
  }

  // Shortens the first part. The parts belong to the caller, so the length is restored when the call returns.
  void CutFirstPart() {
    iovec part;
    const std::string bytes = BytesOf(child_, call_.arguments[1], sizeof part);
    std::memcpy(&part, bytes.data(), sizeof part);
    part_length_ = part.iov_len;
    part.iov_len = std::min<std::size_t>(part.iov_len, treatment_.bytes);
    WriteInto(child_, call_.arguments[1], &part, sizeof part);
  }

  void Leave() {
    is_inside_ = false;
    user_regs_struct registers = RegistersOf(child_);
    const bool fails = treatment_.kind == Treatment::Kind::kRefuse || treatment_.kind == Treatment::Kind::kMakeAndFail;
    if (fails) {
      registers.rax = static_cast<unsigned long long>(-static_cast<long long>(treatment_.error));
      SetRegisters(child_, registers);
    }
    if (has_cut_part_) {
      WriteInto(child_, call_.arguments[1] + offsetof(iovec, iov_len), &part_length_, sizeof part_length_);
      has_cut_part_ = false;
    }
    call_.result = static_cast<long>(registers.rax);
    if (watch_.at_exit) watch_.at_exit(call_);
  }

  pid_t child_;
  const Watch& watch_;
  SystemCall call_;
  Treatment treatment_;
  std::size_t part_length_ = 0;
  int marks_ = 0;
  bool is_inside_ = false;
  bool has_cut_part_ = false;
};

[[noreturn]] void BeChild(const std::function<void()>& body, bool watched, unsigned seconds) {
  is_watched = watched;
  alarm(seconds);
  if (watched && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(97);
  body();
  test::EndChild(0);
}

int WaitFor(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child) Fail("cannot wait");
  return status;
}

}  // namespace

std::string ChildEnd::Text() const {
  if (signal == SIGALRM) return "hangs";
  if (signal != 0) return "dies of signal " + std::to_string(signal);
  return exit_status == 0 ? "" : "exits with " + std::to_string(exit_status);
}

void BeginWatched() {
  if (is_watched) raise(SIGSTOP);
}

void EndWatched() {
  if (is_watched) raise(SIGSTOP);
}

ChildEnd RunChild(const std::function<void()>& body, const Watch* watch, unsigned seconds) {
  const pid_t child = fork();
  if (child < 0) Fail("cannot fork");
  if (child == 0) BeChild(body, watch != nullptr, seconds);
  const int status = watch != nullptr ? Tracer(child, *watch).Run() : WaitFor(child);
  if (WIFSIGNALED(status)) return {.exit_status = -1, .signal = WTERMSIG(status)};
  return {.exit_status = WEXITSTATUS(status), .signal = 0};
}

std::string BytesOf(pid_t process, std::uint64_t address, std::size_t size) {
  std::string bytes(size, '\0');
  const iovec to = {bytes.data(), size};
  const iovec from = {reinterpret_cast<void*>(address), size};
  const ssize_t got = process_vm_readv(process, &to, 1, &from, 1, 0);
  if (got < 0) Fail("cannot read from the child");
  bytes.resize(static_cast<std::size_t>(got));
  return bytes;
}

// The text is read byte by byte, because the page after the NUL may not be mapped.
std::string TextOf(pid_t process, std::uint64_t address) {
  std::string text;
  for (;; ++address) {
    const std::string byte = BytesOf(process, address, 1);
    if (byte.empty() || byte[0] == '\0') return text;
    text += byte;
  }
}

}  // namespace qx::trust
