// Writes the header block, with which the log file begins, and the ring after each wrap.
#include "debug/LogHeader.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <span>

#include "debug/Debug.h"
#include "debug/ErrnoScope.h"
#include "debug/NoCancelScope.h"

namespace qx::debug {

namespace {

constexpr const char* kEnvironmentNames[] = {
    "LD_LIBRARY_PATH",
    "QX_SYSTEM",
    "QX_OS",
    "QX_OS_MAJOR",
    "QX_OS_MINOR",
    "QX_VVOS",
    "QX_RELEASE",
    "QX_VENDOR",
    "QX_HOSTNAME",
    "QX_HOSTOSREVMAJOR",
    "QX_HOSTOSREVMINOR",
    "QX_SYSNAME",
    "QX_VERSION",
    "QX_NICKNAME",
    "QX_HWPLATFORM",
    "QX_RUNNINGONVM",
    "QX_RUNNINGONPAN",
    "QX_VMREL",
    "QX_ARCH",
    "QX_REPO",
    "QX_RAID_EXISTS",
    "QX_RAID_READY",
    "QX_RAID_VERSION",
    "QX_INSTALL_DATE",
    "QX_USE_SG_IO_HDR_T",
    "QX_AGENT_X_SOCKET",
    "QX_VRMD_REPLY_TIME",
    "QX_DAEMON_COREFILE_LIMIT",
    "QX_VME_WAIT_TIME_FOR_VMSERVER",
    "QX_KRX_PROVIDER_TRACE",
    "QX_KRX_NOSIGNAL",
    "QX_LOG_DYNAMIC_UPDATE",
    "QX_KRX_DEBUG_LEVEL",
    "QX_LOG_FILE_DIR",
    "QX_LOG_FILE_MAX_SIZE",
    "QX_LOG_RINGBUF_DIR",
    "QX_LOG_DEBUG_LEVEL",
    "QX_LOG_RINGBUF_WEIGHT",
    "QX_LOG_NOHDR_TOSDTERR",
    "ZTA_QX_HOME",
    "ZTA_SYSLOG_FIFO",
};

// The agent suite exports its configuration file's settings under these names.
constexpr const char* kConfigurationFileNames[] = {
    "AgentPermission",    "AgentShut",       "ShutdownDelay",           "UserGroup",      "ScanTapeDevices",
    "TraceFileLimit",     "NoAccountCheck",  "InventoryRescan",         "CDPollInterval", "AgentsToBeStarted",
    "WaitForVrmdSockets", "WaitForVrmdTerm", "InvAgtPollNetUtilization"};

std::vector<HeaderVariables::Variable> ReadVariables(std::span<const char* const> names) {
  std::vector<HeaderVariables::Variable> variables;
  variables.reserve(names.size());
  for (const char* name : names) {
    const char* value = std::getenv(name);
    variables.push_back({name, value != nullptr ? value : "NotSet"});
  }
  return variables;
}

}  // namespace

void HeaderVariables::Read() {
  environment_ = ReadVariables(kEnvironmentNames);
  configuration_file_ = ReadVariables(kConfigurationFileNames);
}

}  // namespace qx::debug

void CDebug::WriteLogHeader(std::uint32_t target) {
  const qx::LockScope scope(lock_);
  PrintCommandLine(target);
  PrintVariables(target);
  PrintFileValues(target);
  PrintInternalValues(target);
  PrintHeaderLine(target, "\n# End of header.");
}

void CDebug::PrintCommandLine(std::uint32_t target) {
  PrintHeaderLine(target, "\n%s Command Line Options:", app_name_.c_str());
  for (std::int32_t i = 0; i < argument_count_ && arguments_[i] != nullptr; ++i) {
    PrintHeaderLine(target, "\nargv[%d] = \"%s\"", i, arguments_[i]);
  }
}

void CDebug::PrintVariables(std::uint32_t target) {
  PrintHeaderLine(target, "\nQuaxel Environment:");
  for (const auto& variable : header_variables_.Environment()) {
    PrintHeaderLine(target, "\n%s=%s", variable.name, variable.value.c_str());
  }
  PrintHeaderLine(target, "\nQuaxel Configuration File:");
  for (const auto& variable : header_variables_.ConfigurationFile()) {
    PrintHeaderLine(target, "\n%s=%s", variable.name, variable.value.c_str());
  }
}

namespace {

// The header shows unsigned settings as "%d": all ones, the value of a setting that no source has set, shows as -1.
constexpr int AsInt(std::uint32_t value) { return static_cast<std::int32_t>(value); }

}  // namespace

void CDebug::PrintFileValues(std::uint32_t target) {
  PrintHeaderLine(target, "\nDebug values from ini file :");
  PrintHeaderLine(target, "\nDynamicUpdate              : %d", AsInt(file_values_.dynamic_update));
  PrintHeaderLine(target, "\nDebugLevel                 : %d", AsInt(file_values_.level));
  PrintHeaderLine(target, "\nRingBufferSizeFactor       : %d", AsInt(file_values_.ring_factor));
  PrintHeaderLine(target, "\nRingBufferSizeWeight       : %d", AsInt(file_values_.ring_weight));
  PrintHeaderLine(target, "\nRingBufferDirectory        : %s", file_values_.ring_directory);
  PrintHeaderLine(target, "\nNo Header to LogFile       : %d", AsInt(file_values_.no_header_to_stderr));
}

void CDebug::PrintInternalValues(std::uint32_t target) {
  PrintHeaderLine(target, "\nInternal Debug values      :");
  PrintHeaderLine(target, "\nProcess PID                : %d", process_id_);
  PrintHeaderLine(target, "\nTrace Target               : %d", AsInt(target_.load(std::memory_order_relaxed)));
  PrintHeaderLine(target, "\nTrace Level                : %d", AsInt(current_level_.load(std::memory_order_relaxed)));
  PrintHeaderLine(target, "\nTrace Level Saved          : %d", AsInt(saved_level_.load(std::memory_order_relaxed)));
  PrintHeaderLine(target, "\nApplication Init Done      : %d", is_init_done_ ? 1 : 0);
  PrintHeaderLine(target, "\nLogFile Path               : %s", log_.Path());
  PrintHeaderLine(target, "\nLogFile Max Size           : %d", AsInt(log_.MaxSize()));
  PrintHeaderLine(target, "\nRing Buffer FD             : %d", ring_.Descriptor());
  PrintHeaderLine(target, "\nRing Buffer Factor         : %d", AsInt(settings_.ring_factor));
  PrintHeaderLine(target, "\nRing Buffer Weight         : %d", AsInt(settings_.ring_weight));
  PrintHeaderLine(target, "\nRing Buffer Size           : %d", AsInt(ring_size_));
  PrintHeaderLine(target, "\nRing Buffer Directory      : %s", settings_.trace_directory);
  PrintHeaderLine(target, "\nRing Buffer Path           : %s", ring_path_.c_str());
  PrintHeaderLine(target, "\nNo Header to LogFile       : %d", AsInt(settings_.no_header_to_stderr));
}

void CDebug::PrintHeaderLine(std::uint32_t target, const char* format, ...) {
  const qx::debug::ErrnoScope errno_scope;
  const qx::debug::NoCancelScope no_cancel;
  std::va_list args;
  va_start(args, format);
  if (GoesToStderr(target)) {
    std::va_list again;
    va_copy(again, args);
    const std::string_view line = FormatEntry(format, again, nullptr).text;
    va_end(again);
    (void)!::write(STDERR_FILENO, line.data(), line.size());  // a failure could not be reported anywhere
  }
  if (target == kTargetAll) {
    WriteToAll(format, args, nullptr);
  } else {
    WriteEntry(target, format, args, nullptr);
  }
  va_end(args);
}

bool CDebug::GoesToStderr(std::uint32_t target) const noexcept {
  return settings_.no_header_to_stderr == 0 && target != kTargetRingBuffer && target != kTargetAll;
}
