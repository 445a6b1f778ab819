// Helpers for tests of several folders: private directories, whole files, worked examples of the docs, trace capture.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

// A directory of the test's own, removed with everything in it at the end of the scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

// If the file cannot be read or written whole, the test fails by an exception.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, std::string_view bytes);
bool Exists(const std::string& path);

// The number of open descriptors of this process. The count includes the one that it opens itself.
std::size_t OpenDescriptors();

// A registry file that says that the reports are in `directory`.
std::string RegistryWithReportRoot(const std::string& directory);

// "00000000  6b 65 79 ...  |key...|" with 16 bytes a line: the form in which docs/ shows bytes.
std::string HexDump(std::string_view bytes);

// The text of the fenced block that follows the line "<!-- example: NAME -->" in docs/PAGE, without the fences.
std::string DocExample(const std::string& page, const std::string& name);

// The seed of a randomised test: QX_TEST_SEED if it is set, else a fixed number. It is printed once for each caller.
std::uint64_t Seed(const char* who);

// Ends a forked child without the parent's clean-up. In a coverage build the counts of the child are written.
[[noreturn]] void EndChild(int status);

// Sets an environment variable (null: unsets it) and restores the old value at the end of the scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_old_;
};

// Turns on the test program's own Debug object at `level`, with its log in a private directory, and off at the end of
// the scope.
class TraceCapture {
 public:
  explicit TraceCapture(int level);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // The texts traced since construction, one element for each entry, without entry headers and without the head of the
  // log. An entry of several lines is one element. The line feed at the end of an entry is left out.
  std::vector<std::string> Entries() const;
  // The same entries as one text with line feeds between them, to compare them with one literal.
  std::string Text() const;

 private:
  TempDir dir_;
  ScopedEnv directory_;
  ScopedEnv level_;
  ScopedEnv size_;
  std::size_t head_bytes_ = 0;
};

}  // namespace qx::test
