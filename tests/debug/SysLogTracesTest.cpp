// Tests the messages to the system log. The test's own socket at /dev/log receives them. Each test runs in its own
// child, because a process connects to the socket only once.
#include "debug/SysLogTraces.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateMounts.h"

namespace {

using qx::test::TextOfChild;
using qx::test::WithPrivateMounts;

std::atomic<int> openlog_count{0};
std::atomic<int> openlog_option{0};

// The socket of the system log's service.
class DevLog {
 public:
  DevLog() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    qx::test::MountMemory("/dev", "");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot bind /dev/log");
    }
  }
  ~DevLog() { ::close(socket_); }
  DevLog(const DevLog&) = delete;
  DevLog& operator=(const DevLog&) = delete;

  // Every message so far, one per line: "<142>Nov 21 06:56:48 name[123]: text" => "<142>NAME[PID]: text".
  std::string Messages() const {
    std::string messages;
    char datagram[8192];
    for (ssize_t size = 0; (size = ::recv(socket_, datagram, sizeof datagram, MSG_DONTWAIT)) >= 0;) {
      messages += Normalised({datagram, static_cast<std::size_t>(size)}) + "\n";
    }
    return messages;
  }

 private:
  static std::string Normalised(const std::string& message) {
    constexpr std::size_t kDateBytes = 16;  // "Nov 21 06:56:48 "
    const std::size_t date = message.find('>') + 1;
    std::string text = message.substr(0, date) + message.substr(date + kDateBytes);
    const std::string name = std::string(::program_invocation_short_name) + "[" + std::to_string(::getpid()) + "]";
    const std::size_t at = text.find(name);
    return at == std::string::npos ? text : text.replace(at, name.size(), "NAME[PID]");
  }

  const int socket_;
};

void LogVa(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  SysLogTraces::getConnection()->logMessageVaList(format, args);
  va_end(args);
}

// The messages that the system log receives from `body`.
std::string LoggedBy(const std::function<void()>& body) {
  return WithPrivateMounts([&] {
    const DevLog log;
    body();
    return log.Messages();
  });
}

TEST(SysLogTraces, LevelsAreThePriorityNumbersOfTheSystem) {
  EXPECT_EQ(SysLogEmergency, 0);
  EXPECT_EQ(SysLogAlert, 1);
  EXPECT_EQ(SysLogCritical, 2);
  EXPECT_EQ(SysLogError, 3);
  EXPECT_EQ(SysLogWarning, 4);
  EXPECT_EQ(SysLogNotice, 5);
  EXPECT_EQ(SysLogInfo, 6);
  EXPECT_EQ(SysLogDebug, 7);
}

TEST(SysLogTraces, MessageHasNameAndProcessIdFacilityLocal1AndItsLevel) {
  EXPECT_EQ(LoggedBy([] {
              const SysLogTraces* log = SysLogTraces::getConnection();
              log->logMessage("a warning", SysLogWarning);
              log->logMessage("information", SysLogInfo);
              log->logMessage("error\n", SysLogError);
            }),
            "<140>NAME[PID]: a warning\n<142>NAME[PID]: information\n<139>NAME[PID]: error\n\n");
}

TEST(SysLogTraces, NullTextLogsNothing) {
  EXPECT_EQ(LoggedBy([] {
              SysLogTraces::getConnection()->logMessage(nullptr, SysLogError);
              LogVa(nullptr);
            }),
            "");
}

TEST(SysLogTraces, QuirkTextIsTheFormatItself) {
  EXPECT_EQ(LoggedBy([] {
              errno = ENOTTY;
              SysLogTraces::getConnection()->logMessage("100%% of %m", SysLogInfo);
            }),
            "<142>NAME[PID]: 100% of " + std::string(std::strerror(ENOTTY)) + "\n");
}

TEST(SysLogTraces, LeadingLineFeedsOfTheFormatAreSkipped) {
  EXPECT_EQ(LoggedBy([] {
              LogVa("\n\nstarted");
              LogVa("\n%s", "\nthose of the text stay");
              LogVa("\n\n");
            }),
            "<142>NAME[PID]: started\n<142>NAME[PID]: \nthose of the text stay\n<142>NAME[PID]: \n\n\n");
}

TEST(SysLogTraces, FormattedMessageMayHavePerCentSigns) {
  EXPECT_EQ(LoggedBy([] { LogVa("%s and %d%%", "%n %s %m 100%", 7); }), "<142>NAME[PID]: %n %s %m 100% and 7%\n");
}

TEST(SysLogTraces, FormattedMessageIsAlwaysInformation) {
  EXPECT_EQ(LoggedBy([] { LogVa("## ERROR! %s", "text"); }), "<142>NAME[PID]: ## ERROR! text\n");
}

TEST(SysLogTraces, FormattedMessageIsCutTo1023Characters) {
  const std::string text(1023, 'x');
  EXPECT_EQ(LoggedBy([&] { LogVa("%sy", text.c_str()); }), "<142>NAME[PID]: " + text + "\n");
  const std::string signs(1024, '%');
  EXPECT_EQ(LoggedBy([&] { LogVa("%s", signs.c_str()); }), "<142>NAME[PID]: " + signs.substr(1) + "\n");
}

TEST(SysLogTraces, MessageThatCannotBeFormattedIsReplaced) {
  EXPECT_EQ(LoggedBy([] {
              const wchar_t not_a_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
              LogVa("abc %ls", not_a_character);
            }),
            "<142>NAME[PID]: ERROR: cann't format message\n");
}

TEST(SysLogTraces, ConnectionIsMadeOnceAtTheFirstUse) {
  EXPECT_EQ(WithPrivateMounts([] {
              const DevLog log;
              std::string text = SysLogTraces::pInstance == nullptr ? "none, " : "made, ";
              SysLogTraces* const first = SysLogTraces::getConnection();
              text += first == SysLogTraces::getConnection() && first == SysLogTraces::pInstance ? "same" : "other";
              text += " " + std::to_string(openlog_count) + " " +
                      std::to_string(openlog_option == (LOG_PID | LOG_CONS | LOG_NDELAY)) + "\n";
              ::unlink("/dev/log");  // the socket is connected already
              first->logMessage("through the open connection", SysLogInfo);
              return text + log.Messages();
            }),
            "none, same 1 1\n<142>NAME[PID]: through the open connection\n");
}

TEST(SysLogTraces, NameIsThatOfTheProgramWithoutItsDirectory) {
  EXPECT_EQ(TextOfChild([] { return std::string(SysLogTraces::getConnection()->getProcName()); }),
            ::program_invocation_short_name);
}

int OpenSockets() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // set for the descriptor of this listing, which is not a link any more
    count += std::filesystem::read_symlink(entry.path(), gone).string().starts_with("socket:") ? 1 : 0;
  }
  return count;
}

TEST(SysLogTraces, DestructionClosesTheConnection) {
  EXPECT_EQ(WithPrivateMounts([] {
              const DevLog log;
              const int before = OpenSockets();
              int during = 0;
              {
                const SysLogTraces connection;
                during = OpenSockets();
              }
              return std::to_string(during - before) + " " + std::to_string(OpenSockets() - before);
            }),
            "1 0");
}

TEST(SysLogTracesThreads, ThreadsThatStartTogetherGetOneConnection) {
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(TextOfChild([] {
                constexpr int kThreads = 8;
                std::atomic<int> waiting{kThreads};
                std::vector<SysLogTraces*> got(kThreads);
                std::vector<std::thread> threads;
                for (SysLogTraces*& mine : got) {
                  threads.emplace_back([&] {
                    for (--waiting; waiting > 0;) std::this_thread::yield();
                    mine = SysLogTraces::getConnection();
                  });
                }
                for (std::thread& thread : threads) thread.join();
                return std::to_string(std::set<SysLogTraces*>(got.begin(), got.end()).size()) + " connection, opened " +
                       std::to_string(openlog_count);
              }),
              "1 connection, opened 1");
  }
}

}  // namespace

// Counts the calls and passes them on to the C library.
extern "C" void openlog(const char* name, int option, int facility) {
  ++openlog_count;
  openlog_option = option;
  reinterpret_cast<void (*)(const char*, int, int)>(::dlsym(RTLD_NEXT, "openlog"))(name, option, facility);
}
