// Child processes of a test, for work that changes the whole process, or as other processes that hold a lock or a file.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

namespace qx::test {

// The exit status of a forked child that runs `body`; 1000 + N if signal N ends it. After an exception the status is
// 99, and its text is on standard error.
int StatusOfChild(const std::function<int()>& body);

struct ChildText {
  bool with_errors = false;              // the child's standard error is part of the text
  std::function<int()> status_at_end{};  // the exit status of the child; empty: 0
};

// The text that `body` returns in a forked child, with "[signal N]" or "[status N]" after it if the child fails. If
// `body` throws, the text is "[exception: ...]".
std::string TextOfChild(const std::function<std::string()>& body, const ChildText& options = {});

// To be called in a child: no file may grow above `bytes`. A write beyond this size writes a part, or fails with EFBIG,
// like the writes to a full disk.
[[nodiscard]] bool LimitFileSize(std::size_t bytes);

// A child that does `action` and then waits until the end of the scope. Throws std::runtime_error if the action returns
// false.
class WaitingChild {
 public:
  explicit WaitingChild(const std::function<bool()>& action);
  ~WaitingChild();
  WaitingChild(const WaitingChild&) = delete;
  WaitingChild& operator=(const WaitingChild&) = delete;

  int Id() const { return id_; }
  // Ends the child now.
  void End();

 private:
  pid_t id_ = -1;
  bool has_ended_ = false;
};

}  // namespace qx::test
