// Runs a part of a child process call by call: each system call can be watched, refused with an error, or cut short,
// also those that the C library makes inside of stdio and of the dynamic linker. Written for x86-64 Linux.
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

// What happens to a call.
struct Treatment {
  enum class Kind {
    kPass,
    kRefuse,       // it is not made, and fails with `error`
    kMakeAndFail,  // it is made, but fails: like close
    kCutShort,     // it is made for `bytes` bytes only
  };
  Kind kind = Kind::kPass;
  int error = 0;
  std::uint64_t bytes = 0;
};

struct Watch {
  std::function<Treatment(const SystemCall&)> at_entry;
  std::function<void(const SystemCall&)> at_exit;  // may be empty
};

// How a child ended.
struct ChildEnd {
  int exit_status = -1;  // -1: a signal killed it
  int signal = 0;        // SIGALRM: it took longer than it may
  [[nodiscard]] bool IsGood() const { return exit_status == 0; }
  [[nodiscard]] std::string Text() const;
};

// For the child: the calls between the two are watched.
void BeginWatched();
void EndWatched();

// Forks, runs `body` in the child and ends the child. With a `watch` the calls between BeginWatched and EndWatched go
// through it; without one the two do nothing. A child that takes longer than `seconds` is killed.
ChildEnd RunChild(const std::function<void()>& body, const Watch* watch, unsigned seconds);

// The text at `address` of the process, up to its NUL, and `size` bytes there.
std::string TextOf(pid_t process, std::uint64_t address);
std::string BytesOf(pid_t process, std::uint64_t address, std::size_t size);

}  // namespace qx::trust
