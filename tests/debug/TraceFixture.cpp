#include "tests/debug/TraceFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
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

std::string WithoutStamps(std::string_view log) {
  static const std::regex kStamp(
      "(^|\n)[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\[[0-9A-F]{8}\\]");
  return std::regex_replace(std::string(log), kStamp, "$1S [T]");
}

int DescriptorOf(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the descriptor of this very listing
    if (std::filesystem::read_symlink(entry.path(), gone) == path) return std::stoi(entry.path().filename());
  }
  return -1;
}

}  // namespace qx::test
