// Runs a part of a child process call by call. Each system call can be watched, refused with an error, or cut short,
// also the calls that the C library makes within stdio and the dynamic linker. Written for x86-64 Linux.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace qx::trust {

struct SystemCall {
  pid_t process = 0;
  long number = 0;
  std::array<std::uint64_t, 6> arguments{};
  long result = 0;  // at the exit: what the caller sees, -errno for an error
};

// The treatment of a call.
struct Treatment {
  enum class Kind {
    kPass,
    kRefuse,       // the call is not made, and fails with `error`
    kMakeAndFail,  // the call is made, but returns a failure, like close
    kCutShort,     // the call is made, but only for `bytes` bytes
  };
  Kind kind = Kind::kPass;
  int error = 0;
  std::uint64_t bytes = 0;
};

struct Watch {
  std::function<Treatment(const SystemCall&)> at_entry;
  std::function<void(const SystemCall&)> at_exit;  // may be empty
};

// The end of a child.
struct ChildEnd {
  int exit_status = -1;  // -1: a signal killed it
  int signal = 0;        // SIGALRM: it took too long
  [[nodiscard]] bool IsGood() const { return exit_status == 0; }
  [[nodiscard]] std::string Text() const;
};

// To be called in the child: the calls between these two are watched.
void BeginWatched();
void EndWatched();

// Forks, runs `body` in the child, and ends the child. With a `watch`, the calls between BeginWatched and EndWatched go
// through it; without one, these two functions do nothing. A child that takes longer than `seconds` is killed.
ChildEnd RunChild(const std::function<void()>& body, const Watch* watch, unsigned seconds);

// TextOf: the text at `address` of the process, up to its NUL. BytesOf: `size` bytes at this address.
std::string TextOf(pid_t process, std::uint64_t address);
std::string BytesOf(pid_t process, std::uint64_t address, std::size_t size);

}  // namespace qx::trust
