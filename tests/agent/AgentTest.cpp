// Tests the agent: its records of given /proc texts, and the program with a service manager that the test imitates.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "agent/Reports.h"
#include "agent/Samples.h"
#include "reportfile/ReportFileBase.h"
#include "tests/qxctl/RunQxctl.h"
#include "tests/reportfile/StoreFiles.h"

namespace qx::test {

namespace {

using agent::ProcTexts;
using agent::Samples;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

// "report: text" of each record
std::vector<std::string> Texts(const std::vector<agent::Sample>& samples) {
  std::vector<std::string> texts;
  for (const agent::Sample& sample : samples) texts.push_back(sample.report + ": " + sample.text);
  return texts;
}

std::vector<std::string> RecordsOfReport(const std::string& base_path) {
  CReportFileBase report;
  return report.OpenRead(base_path.c_str()) ? ReadAll(report) : std::vector<std::string>();
}

// The socket of a service manager.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~NotifySocket() { close(socket_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next message; empty if none comes within 20 seconds.
  std::string Next() const {
    pollfd file = {socket_, POLLIN, 0};
    char bytes[512];
    const ssize_t size = poll(&file, 1, 20'000) == 1 ? recv(socket_, bytes, sizeof bytes, 0) : 0;
    return {bytes, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }

  // The first message that begins with `begin`.
  std::string NextWith(const std::string& begin) const {
    std::string message = Next();
    while (!message.empty() && !message.starts_with(begin)) message = Next();
    return message;
  }

 private:
  int socket_;
};

class QxAgent : public testing::Test {
 protected:
  Start WithSocket(const std::string& watchdog_microseconds) const {
    return {.directory = dir_.Path(),
            .environment = {{"NOTIFY_SOCKET", dir_.File("notify")}, {"WATCHDOG_USEC", watchdog_microseconds}}};
  }

  static std::vector<std::string> Command(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {QX_QXAGENT};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  TempDir dir_;
};

}  // namespace

TEST(AgentSamples, EachFileOfProcMakesItsRecords) {
  Samples samples;
  const ProcTexts first = {
      .loadavg = "0.12 0.31 0.25 2/234 5678\n",
      .meminfo = "MemTotal:       1000 kB\nMemFree: 1 kB\nMemAvailable:    400 kB\nSwapTotal: 50 kB\nSwapFree: 20 kB\n",
      .diskstats = "   8       0 sda 9 0 2048 5 9 0 1000 7 0 100 99\n   7       0 loop0 9 0 8 5 9 0 8 7 0 100 99\n",
      .net_dev =
          "Inter-|   Receive  | Transmit\n face |bytes\n    lo: 5 5 0 0 0 0 0 0 5 5 0 0 0 0 0 0\n"
          "  eth0: 1024 5 0 0 0 0 0 0 2048 5 0 0 0 0 0 0\n"};
  EXPECT_THAT(Texts(samples.Take(first, 0)), ElementsAre("load: load1=0.12 load5=0.31 load15=0.25 running=2 tasks=234",
                                                         "memory: used_kB=600 available_kB=400 swap_used_kB=30"));
  ProcTexts second = first;
  second.diskstats = "   8       0 sda 9 0 2148 5 9 0 1040 7 0 1100 99\n";
  second.net_dev = "  eth0: 3072 5 2 0 0 0 0 0 3072 5 1 0 0 0 0 0\n";
  EXPECT_THAT(Texts(samples.Take(second, 2)),
              ElementsAre("load: load1=0.12 load5=0.31 load15=0.25 running=2 tasks=234",
                          "memory: used_kB=600 available_kB=400 swap_used_kB=30",
                          "disk/sda: read_kB_s=25.0 written_kB_s=10.0 busy_percent=50.0",
                          "network/eth0: received_kB_s=1.0 sent_kB_s=0.5 errors=3"));
}

TEST(AgentSamples, CounterThatFellBeginsAgain) {
  Samples samples;
  (void)samples.Take({.diskstats = "8 0 sda 9 0 2048 5 9 0 1000 7 0 100 99\n"}, 0);
  EXPECT_THAT(samples.Take({.diskstats = "8 0 sda 9 0 10 5 9 0 10 7 0 1 99\n"}, 1), IsEmpty());
  EXPECT_THAT(Texts(samples.Take({.diskstats = "8 0 sda 9 0 12 5 9 0 10 7 0 1 99\n"}, 1)),
              ElementsAre("disk/sda: read_kB_s=1.0 written_kB_s=0.0 busy_percent=0.0"));
}

TEST(AgentSamples, TextsThatAreCutMakeNoWrongRecord) {
  const std::string loadavg = "0.12 0.31 0.25 2/234";
  const std::string meminfo = "MemTotal: 1000 kB\nMemAvailable: 400 kB";
  for (std::size_t size = 0; size < loadavg.size() - 5; ++size) {
    Samples samples;
    EXPECT_THAT(samples.Take({.loadavg = loadavg.substr(0, size), .meminfo = meminfo.substr(0, 30)}, 0), IsEmpty());
  }
  Samples samples;
  (void)samples.Take({.diskstats = "8 0 sda 9 0 x 5 9 0 1 7 0 100\n", .net_dev = "eth0: 1 2 3\n: 1\n"}, 0);
  EXPECT_THAT(samples.Take({.diskstats = "8 0 sda", .net_dev = "eth0: 1 2 3\n"}, 1), IsEmpty());
}

TEST(AgentSamples, OnlyNamesOfReportsAreSampled) {
  for (const char* const name : {"sda", "nvme0n1", "dm-0", "cciss!c0d0"}) EXPECT_TRUE(agent::IsSampledDisk(name));
  for (const char* const name : {"", ".", "..", "../x", "a/b", "loop1", "ram0", "a\nb"}) {
    EXPECT_FALSE(agent::IsSampledDisk(name)) << name;
  }
  for (const char* const name :
       {"eth0", "enp3s0", "br-lan", "br-facade", "br-00000000000x", "docker0", "eth0.7", "eth0:1"}) {
    EXPECT_TRUE(agent::IsSampledInterface(name)) << name;
  }
  for (const char* const name : {"lo", "veth12", "vnet3", "tap0", "cali12", "br-0123456789ab", "..", "a/b", ""}) {
    EXPECT_FALSE(agent::IsSampledInterface(name)) << name;
  }
}

TEST(AgentSamples, NumberOfDevicesIsBounded) {
  Samples samples;
  std::string disks;
  for (int i = 0; i < 100; ++i) disks += "8 0 sd" + std::to_string(i) + " 9 0 2048 5 9 0 1000 7 0 100 99\n";
  (void)samples.Take({.diskstats = disks}, 0);
  EXPECT_EQ(samples.Take({.diskstats = disks}, 1).size(), agent::kDevicesMax);
}

TEST_F(QxAgent, ReportsOfDevicesThatAreGoneAreClosed) {
  agent::Reports reports(dir_.File("host"), 10);
  const std::size_t before = OpenDescriptors();
  for (int device = 0; device < 100; ++device) {
    const std::string name = "disk/sd" + std::to_string(device);
    reports.CloseOthers({{"load", "1"}, {name, "2"}});
    ASSERT_FALSE(reports.Append("load", "1").Failed());
    ASSERT_FALSE(reports.Append(name, "2").Failed());
  }
  EXPECT_LE(OpenDescriptors(), before + 6) << "two reports, with two files each, and their locks";
  EXPECT_EQ(RecordsOfReport(dir_.File("host/load")).size(), 10U);
  EXPECT_EQ(RecordsOfReport(dir_.File("host/disk/sd7")), std::vector<std::string>({"2\r\n"}));
}

TEST_F(QxAgent, ServiceManagerHearsWhatTheAgentDoes) {
  const NotifySocket manager(dir_.File("notify"));
  Child agent(Command({"--directory", dir_.File("host"), "--interval", "20"}), WithSocket("60000"));
  EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=Samples into " + dir_.File("host"));
  EXPECT_THAT(RecordsOfReport(dir_.File("host/load")), testing::Not(IsEmpty()))
      << "ready means that a record is stored";
  EXPECT_EQ(manager.Next(), "WATCHDOG=1");
  EXPECT_EQ(manager.Next(), "WATCHDOG=1");
  agent.Kill(SIGTERM);
  EXPECT_EQ(manager.NextWith("STOPPING"), "STOPPING=1");
  const Ran ran = agent.Wait();
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.err, "");
  const std::vector<std::string> records = RecordsOfReport(dir_.File("host/load"));
  EXPECT_GE(records.size(), 2U);
  EXPECT_THAT(records.at(0), MatchesRegex("20..-..-.. ..:..:.. load1=[0-9.]+ .*tasks=[0-9]+\r\n"));
  EXPECT_THAT(RecordsOfReport(dir_.File("host/memory")).at(0), HasSubstr("available_kB="));
}

TEST_F(QxAgent, ReportOfAnotherWriterIsReportedAndRetried) {
  const NotifySocket manager(dir_.File("notify"));
  const Start start = WithSocket("20000000");
  EXPECT_EQ(Child(Command({"--directory", "host", "--count", "1"}), start).Wait().code, 0);
  auto other = std::make_unique<CReportFileBase>();
  ASSERT_TRUE(other->Open(dir_.File("host/load").c_str(), 0));
  const Ran refused = Child(Command({"--directory", "host", "--count", "1"}), start).Wait();
  EXPECT_EQ(refused.code, 6);
  EXPECT_THAT(refused.err, HasSubstr("host/load"));
  other.reset();
  EXPECT_EQ(Child(Command({"--directory", "host", "--count", "2", "--interval", "10"}), start).Wait().code, 0);
  EXPECT_EQ(RecordsOfReport(dir_.File("host/load")).size(), 3U);
  EXPECT_EQ(RecordsOfReport(dir_.File("host/memory")).size(), 4U) << "the other reports get their records";
}

TEST_F(QxAgent, WrongCommandLineEndsWithCodeTwo) {
  const std::vector<std::vector<std::string>> lines = {{"--interval", "0"}, {"--slots", "x"},    {"--count", ""},
                                                       {"--reports", ""},   {"--reports", ".."}, {"extra"},
                                                       {"--unknown"}};
  for (const auto& line : lines) {
    const Ran ran = Child(Command(line), {.directory = dir_.Path()}).Wait();
    EXPECT_EQ(ran.code, 2) << line[0];
    EXPECT_THAT(ran.err, HasSubstr("qxagent: ")) << line[0];
    EXPECT_THAT(ran.err, HasSubstr(line[0])) << "the message names the wrong argument";
  }
  EXPECT_THAT(Child(Command({"--help"}), {.directory = dir_.Path()}).Wait().out, HasSubstr("Usage: qxagent"));
}

}  // namespace qx::test
