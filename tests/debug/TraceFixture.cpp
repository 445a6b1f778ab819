#include "tests/debug/TraceFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <stdexcept>

namespace qx::test {

namespace {

constexpr const char* kVariables[] = {"QX_LOG_DYNAMIC_UPDATE", "QX_LOG_DEBUG_LEVEL",    "TraceFileLimit",
                                      "QX_LOG_RINGBUF_WEIGHT", "QX_LOG_NOHDR_TOSDTERR", "QX_LOG_RINGBUF_WEIGHT_QXTRACE",
                                      "QX_LOG_FILE_DIR",       "QX_LOG_RINGBUF_DIR",    "QX_LOG_FILE_MAX_SIZE"};

}  // namespace

TraceSetup::TraceSetup() {
  for (const char* name : kVariables) SetEnv(name, nullptr);
  SetEnv("QX_LOG_RINGBUF_DIR", logs_.Path().c_str());
}

void TraceSetup::SetEnv(const char* name, const char* value) {
  environment_.push_back(std::make_unique<ScopedEnv>(name, value));
}

void TraceSetup::WriteIni(const std::string& name, std::string_view text) {
  WriteFile(IniPath(name), text);
  const timespec time{++file_time_, 0};
  const timespec times[] = {time, time};
  if (utimensat(AT_FDCWD, IniPath(name).c_str(), times, 0) != 0) throw std::runtime_error("cannot date " + name);
}

bool TraceSetup::InitAtLevel(int level) {
  SetEnv("QX_LOG_DEBUG_LEVEL", std::to_string(level).c_str());
  return Init();
}

std::string TraceSetup::PlainLog() const { return WithoutStamps(Log()); }

bool StartsWithShape(std::string_view text, std::string_view shape) {
  if (text.size() < shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const bool fits = shape[i] == '9' ? std::isdigit(c) != 0 : shape[i] == 'F' ? std::isxdigit(c) != 0 : c == shape[i];
    if (!fits) return false;
  }
  return true;
}

std::string WithoutStamps(std::string_view log) {
  constexpr std::string_view kShape = "9999-99-99 99:99:99.999 [FFFFFFFF]";
  std::string plain;
  while (!log.empty()) {
    if (StartsWithShape(log, kShape)) {
      plain += "S [T]";
      log.remove_prefix(kShape.size());
    }
    const std::size_t line_bytes = std::min(log.find('\n'), log.size() - 1) + 1;
    plain += log.substr(0, line_bytes);
    log.remove_prefix(line_bytes);
  }
  return plain;
}

int DescriptorOf(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // set for the descriptor of this listing, which is not a link any more
    if (std::filesystem::read_symlink(entry.path(), gone) == path) return std::stoi(entry.path().filename());
  }
  return -1;
}

}  // namespace qx::test
