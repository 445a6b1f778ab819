#include "tests/support/Support.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "debug/Debug.h"

#ifdef QX_COUNTS_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace qx::test {

namespace {

// "2026-01-31 10:20:30.123 [0123ABCD] MODULE        ": every entry starts with a stamp of this shape.
bool StartsEntry(std::string_view line) {
  constexpr std::string_view kShape = "dddd-dd-dd dd:dd:dd.ddd [";
  if (line.size() < kShape.size()) return false;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool is_digit = line[i] >= '0' && line[i] <= '9';
    if (kShape[i] == 'd' ? !is_digit : line[i] != kShape[i]) return false;
  }
  return true;
}

// The text after "[thread] MODULE-COLUMN ". The module column is 13 characters wide, or as long as the name.
std::string_view WithoutHeader(std::string_view line) {
  std::size_t at = line.find("] ");
  if (at == std::string_view::npos) return line;
  at += 2;
  std::size_t end = line.find(' ', at);
  if (end == std::string_view::npos) return {};
  if (end < at + 13) end = at + 13;
  return end + 1 <= line.size() ? line.substr(end + 1) : std::string_view();
}

std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

}  // namespace

void EndChild(int status) {
#ifdef QX_COUNTS_COVERAGE
  // Raises the limit of the file size, so that the file of the coverage counts is written whole. A cut file would stop
  // all later processes from adding their counts.
  rlimit limit = {};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(status);
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(status);
  __gcov_dump();  // an ordinary exit would do this
#endif
  _exit(status);
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "qx-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;  // files that cannot be removed stay
  std::filesystem::remove_all(path_, ignored);
}

std::string RegistryWithReportRoot(const std::string& directory) {
  return "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\nReportRoot=s=" +
         directory + "\n\n\n\n\n\n\n\n";
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

void WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator begin("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin, {}));
}

bool Exists(const std::string& path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

std::string HexDump(std::string_view bytes) {
  std::string out;
  char cell[24];
  for (std::size_t row = 0; row < bytes.size(); row += 16) {
    const std::string_view part = bytes.substr(row, 16);
    std::snprintf(cell, sizeof cell, "%08zx ", row);
    out += cell;
    for (std::size_t i = 0; i < 16; ++i) {
      std::snprintf(cell, sizeof cell, " %02x", i < part.size() ? static_cast<unsigned char>(part[i]) : 0U);
      out += i < part.size() ? cell : "   ";
    }
    out += "  |";
    for (const char c : part) out += c >= 32 && c < 127 ? c : '.';
    out += "|\n";
  }
  return out;
}

std::string DocExample(const std::string& page, const std::string& name) {
  const std::string text = ReadFile(std::string(QX_SOURCE_DIR) + "/docs/" + page);
  const std::string mark = "<!-- example: " + name + " -->\n```";
  std::size_t at = text.find(mark);
  if (at == std::string::npos) throw std::runtime_error("no example " + name + " in docs/" + page);
  at = text.find('\n', at + mark.size()) + 1;
  const std::size_t end = text.find("```", at);
  return text.substr(at, end - at);
}

std::uint64_t Seed(const char* who) {
  const char* given = std::getenv("QX_TEST_SEED");
  const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 0) : 20260101;
  std::printf("%s: QX_TEST_SEED=%llu\n", who, static_cast<unsigned long long>(seed));
  return seed;
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  const char* old = std::getenv(name);
  had_old_ = old != nullptr;
  if (had_old_) old_ = old;
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (had_old_) {
    setenv(name_.c_str(), old_.c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

TraceCapture::TraceCapture(int level)
    : directory_("QX_LOG_RINGBUF_DIR", dir_.Path().c_str()),
      level_("QX_LOG_DEBUG_LEVEL", std::to_string(level).c_str()),
      size_("QX_LOG_FILE_MAX_SIZE", "100000000") {
  if (!Debug.Init("QxTest")) throw std::runtime_error("tracing did not start");
  head_bytes_ = ReadFile(dir_.File("log.qxtest")).size();
}

TraceCapture::~TraceCapture() { (void)Debug.ForceMaxDebug(false); }

std::vector<std::string> TraceCapture::Entries() const {
  const std::string text = ReadFile(dir_.File("log.qxtest")).substr(head_bytes_);
  std::vector<std::string> entries;
  for (const std::string_view line : Lines(text)) {
    if (StartsEntry(line)) {
      entries.emplace_back(WithoutHeader(line));
    } else if (!entries.empty()) {
      entries.back().append("\n").append(line);
    }
  }
  return entries;
}

std::string TraceCapture::Text() const {
  std::string text;
  for (const std::string& entry : Entries()) text += entry + "\n";
  return text;
}

}  // namespace qx::test
