// Tests the work of an operator, and its mistakes, with real servers and processes: TLS, tokens, rights, names, clocks,
// and the costs of a fault.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/NatsServer.h"
#include "tests/qxrelay/QxrelayProcess.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace {

using qx::relay::StreamSettings;
using qx::relay::StreamState;
using qx::test::NatsServer;
using qx::test::QxrelayProcess;
using qx::test::Until;
using testing::HasSubstr;
using Arguments = std::vector<std::string>;

// A host with a directory of its own.
class Host {
 public:
  explicit Host(const std::string& stream_lines, const std::string& send_lines = {}) {
    std::filesystem::create_directory(dir_.File("reports"));
    Configure(stream_lines, send_lines);
  }

  void Configure(const std::string& stream_lines, const std::string& send_lines = {}, const std::string& name = "h") {
    qx::test::WriteFile(Config(), "[stream]\nreplicas=1\nbytes=64 MiB\n" + stream_lines + "\n[host]\nname=" + name +
                                      "\n[send]\nreports=" + dir_.File("reports") + "\nstate=" + dir_.File("state") +
                                      "\nspread=0 s\nlinger=5 ms\npoll=2 ms\npoll_idle=10 ms\ntimeout=1 s\n" +
                                      send_lines);
  }

  [[nodiscard]] std::string Config() const { return dir_.File("relay.ini"); }
  [[nodiscard]] std::string File(const std::string& name) const { return dir_.File(name); }

  void Append(int count, const std::string& report = "load") {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/" + report).c_str(), 1000));
    for (int i = 0; i < count; ++i) ASSERT_TRUE(store.writeLine("x"));
  }

  // The exit code of a command; its output is in Text.
  int Run(Arguments arguments) {
    arguments.insert(arguments.end(), {"--config", Config()});
    std::filesystem::remove(dir_.File("output"));
    return QxrelayProcess(arguments, dir_.File("output")).Wait();
  }
  [[nodiscard]] std::string Text() const { return qx::test::ReadFile(dir_.File("output")); }

  [[nodiscard]] QxrelayProcess Send(const Arguments& environment = {}) const {
    return QxrelayProcess({"send", "--config", Config()}, dir_.File("log"), environment);
  }
  [[nodiscard]] std::string Log() const {
    return qx::test::Exists(dir_.File("log")) ? qx::test::ReadFile(dir_.File("log")) : "";
  }
  [[nodiscard]] bool Logged(const std::string& text) const {
    return Until([&] { return Log().find(text) != std::string::npos; });
  }

 private:
  qx::test::TempDir dir_;
};

StreamSettings SettingsFor(const NatsServer& server, const std::string& user = {}, const std::string& password = {}) {
  StreamSettings settings;
  settings.servers = {server.Url()};
  settings.replicas = 1;
  settings.bytes = 16 * 1024 * 1024;
  settings.user = user;
  settings.password_file = password;
  return settings;
}

bool HasMessages(const StreamSettings& settings, std::uint64_t count) {
  StreamState state;
  return Until([&] { return !ReadStream(settings, state).has_value() && state.messages == count; });
}

int Shell(const std::string& command) { return std::system(("{ " + command + "; } >/dev/null 2>&1").c_str()); }

// Keys and certificates that the test makes: an authority, a server and a client whose certificates the authority has
// signed, and a stranger.
class Certificates {
 public:
  Certificates() {
    Request("ca", "req -x509 -days 2 -out " + File("ca.pem"));
    Request("other", "req -x509 -days 2 -out " + File("other.pem"));
    qx::test::WriteFile(File("names"), "subjectAltName=IP:127.0.0.1\n");
    for (const std::string name : {"server", "client"}) {
      Request(name, "req -out " + File(name + ".csr"));
      Openssl("x509 -req -days 2 -in " + File(name + ".csr") + " -CA " + File("ca.pem") + " -CAkey " + File("ca.key") +
              " -CAcreateserial -out " + File(name + ".pem") + " -extfile " + File("names"));
    }
  }

  [[nodiscard]] std::string File(const std::string& name) const { return dir_.File(name); }
  [[nodiscard]] std::string OfServer() const {
    return "tls { cert_file: \"" + File("server.pem") + "\", key_file: \"" + File("server.key") + "\", ca_file: \"" +
           File("ca.pem") + "\", verify: true }\n";
  }

 private:
  void Request(const std::string& name, const std::string& arguments) {
    Openssl(arguments + " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + File(name + ".key") +
            " -subj /CN=" + name);
    std::filesystem::permissions(File(name + ".key"), std::filesystem::perms::owner_read);
  }
  static void Openssl(const std::string& arguments) { EXPECT_EQ(Shell("openssl " + arguments), 0) << arguments; }

  qx::test::TempDir dir_;
};

TEST(RelayTls, CertificatesOfBothSidesAreProvenAndFaultsAreNamed) {
  const Certificates keys;
  const NatsServer server(keys.OfServer());
  const auto lines = [&](const std::string& ca, const std::string& certificate, const std::string& key) {
    std::string text = "servers=" + server.Url() + "\n";
    if (!ca.empty()) text += "ca_file=" + keys.File(ca) + "\n";
    if (!certificate.empty()) text += "certificate_file=" + keys.File(certificate) + "\n";
    if (!key.empty()) text += "key_file=" + keys.File(key) + "\n";
    return text;
  };
  Host host(lines("ca.pem", "client.pem", "client.key"));
  EXPECT_EQ(host.Run({"stream", "create"}), 0) << host.Text();
  EXPECT_EQ(host.Run({"check"}), 0) << host.Text();
  host.Append(3);
  {
    QxrelayProcess sender = host.Send();
    EXPECT_TRUE(Until([&] { return host.Run({"status", "--json"}) == 0; })) << host.Log();
    EXPECT_EQ(sender.End(SIGTERM), 0);
  }
  struct Row {
    std::string ca, certificate, key, finding;
  };
  const Row rows[] = {
      {"other.pem", "client.pem", "client.key", "check ca_file in [stream], and that the certificates"},
      {"ca.pem", "", "", "set certificate_file and key_file in [stream]"},
      {"", "", "", "the servers use TLS, and this machine does not know their authority: set ca_file in [stream]"},
      {"ca.pem", "client.pem", "other.key", "certificate_file and key_file"},
  };
  for (const Row& row : rows) {
    host.Configure(lines(row.ca, row.certificate, row.key));
    EXPECT_EQ(host.Run({"check"}), 1);
    EXPECT_THAT(host.Text(), HasSubstr(row.finding));
  }
  host.Configure(lines("other.pem", "client.pem", "client.key"));
  QxrelayProcess sender = host.Send();
  EXPECT_TRUE(host.Logged("check ca_file")) << host.Log();
  EXPECT_EQ(sender.End(SIGTERM), 0);
}

TEST(RelayCredentials, AUserWithATokenSendsWhatItMayAndAWrongTokenIsNamed) {
  const qx::test::TempDir dir;
  const std::string script = std::string(QX_SOURCE_DIR) + "/tests/qxrelay/make_credentials.py ";
  ASSERT_EQ(Shell("python3 " + script + dir.Path()), 0);
  NatsServer server(qx::test::ReadFile(dir.File("server.conf")));
  const std::string lines = "servers=" + server.Url() + "\ncredentials_file=";
  Host host(lines + dir.File("user.creds"));
  std::filesystem::permissions(dir.File("user.creds"), std::filesystem::perms(0600));
  EXPECT_EQ(host.Run({"stream", "create"}), 0) << host.Text();
  EXPECT_EQ(host.Run({"check"}), 0) << host.Text();
  host.Append(3);
  QxrelayProcess sender = host.Send();
  StreamSettings settings = SettingsFor(server);
  settings.credentials_file = dir.File("user.creds");
  EXPECT_TRUE(HasMessages(settings, 2)) << host.Log();  // the labels and the records
  EXPECT_EQ(sender.End(SIGTERM), 0);

  // The token of another operator.
  const qx::test::TempDir other;
  ASSERT_EQ(Shell("python3 " + script + other.Path()), 0);
  std::filesystem::permissions(other.File("user.creds"), std::filesystem::perms(0600));
  host.Configure(lines + other.File("user.creds"));
  EXPECT_EQ(host.Run({"check"}), 1);
  EXPECT_THAT(host.Text(), HasSubstr("the servers refuse the credentials: check user, password_file and "));
  host.Configure(lines + dir.File("none.creds"));
  EXPECT_EQ(host.Run({"check"}), 1);
  EXPECT_THAT(host.Text(), HasSubstr("credentials_file: " + dir.File("none.creds") + ": No such file or directory"));
}

// A server whose users "qxrelay host" manages, in a file next to its configuration.
class RelayUsers : public testing::Test {
 protected:
  RelayUsers() : host_("") {
    EXPECT_EQ(Command({"host", "add", "h", "--password-file", host_.File("h")}), 0) << host_.Text();
    EXPECT_EQ(Command({"host", "add", "op", "--role", "operator", "--password-file", host_.File("op")}), 0);
    server_ = std::make_unique<NatsServer>(Users());
    EXPECT_EQ(CreateStream(Operator()), std::nullopt);
  }

  int Command(Arguments arguments) {
    arguments.insert(arguments.end(), {"--users", host_.File("users.conf")});
    return host_.Run(arguments);
  }
  [[nodiscard]] std::string Users() const {
    return "authorization {\n" + qx::test::ReadFile(host_.File("users.conf")) + "}\n";
  }
  [[nodiscard]] StreamSettings Operator() const { return SettingsFor(*server_, "op", host_.File("op")); }
  void ConfigureAs(const std::string& name) {
    host_.Configure("servers=" + server_->Url() + "\nuser=" + name + "\npassword_file=" + host_.File("h"), {}, name);
  }
  // Sets the operator's user in the settings, for commands of the operator.
  void ConfigureAsOperator() {
    host_.Configure("servers=" + server_->Url() + "\nuser=op\npassword_file=" + host_.File("op"));
  }

  Host host_;
  std::unique_ptr<NatsServer> server_;
};

TEST_F(RelayUsers, ARenamedHostKeepsItsPasswordAndSendsUnderItsNewName) {
  ConfigureAs("h");
  host_.Append(3);
  {
    QxrelayProcess sender = host_.Send();
    EXPECT_TRUE(HasMessages(Operator(), 2)) << host_.Log();
    EXPECT_EQ(sender.End(SIGTERM), 0);
  }
  EXPECT_EQ(Command({"host", "rename", "h", "../x"}), 2);
  EXPECT_EQ(Command({"host", "rename", "none", "db3"}), 4);
  EXPECT_EQ(Command({"host", "rename", "h", "op"}), 5);
  EXPECT_EQ(Command({"host", "rename", "h", "db3"}), 0);
  EXPECT_THAT(host_.Text(), HasSubstr("set user in [stream] and name in [host] to db3"));
  server_->Restart(Users());
  EXPECT_EQ(host_.Run({"check"}), 1) << "the old name has no rights any more";
  EXPECT_THAT(host_.Text(), HasSubstr("the servers refuse the credentials"));
  ConfigureAs("db3");
  EXPECT_EQ(host_.Run({"check"}), 0) << host_.Text();
  QxrelayProcess sender = host_.Send();
  EXPECT_TRUE(HasMessages(Operator(), 4)) << "the records of the ring, once more: " << host_.Log();
}

TEST_F(RelayUsers, ARetiredHostHasNoRightsAndItsMessagesGoIfThatIsRequested) {
  ConfigureAs("h");
  host_.Append(3);
  {
    QxrelayProcess sender = host_.Send();
    EXPECT_TRUE(HasMessages(Operator(), 2)) << host_.Log();
    EXPECT_EQ(sender.End(SIGTERM), 0);
  }
  ConfigureAsOperator();
  EXPECT_EQ(Command({"host", "retire", "none", "--purge"}), 4);
  EXPECT_TRUE(HasMessages(Operator(), 2));
  EXPECT_EQ(Command({"host", "retire", "h", "--purge"}), 0) << host_.Text();
  EXPECT_TRUE(HasMessages(Operator(), 0));
  server_->Restart(Users());
  ConfigureAs("h");
  EXPECT_EQ(host_.Run({"check"}), 1);
  EXPECT_THAT(host_.Text(), HasSubstr("the servers refuse the credentials"));
}

TEST(RelayNewest, WhatTheRingHasIsSentAgainAfterTheNewestMessageHasExpired) {
  const NatsServer server;
  StreamSettings settings = SettingsFor(server);
  settings.age = std::chrono::seconds(1);
  ASSERT_EQ(CreateStream(settings), std::nullopt);
  Host host("servers=" + server.Url() + "\n");
  host.Append(5);
  QxrelayProcess sender = host.Send();
  EXPECT_TRUE(host.Logged("connected"));
  StreamState state;
  EXPECT_TRUE(Until([&] { return !ReadStream(settings, state).has_value() && state.last_sequence >= 2; }));
  EXPECT_TRUE(HasMessages(settings, 0)) << "everything expires";
  host.Append(2);
  EXPECT_TRUE(Until([&] {
    return host.Run({"status", "--json"}) == 0 && host.Text().find("\"records\": 12,") != std::string::npos;
  })) << host.Text();
  EXPECT_THAT(host.Text(), HasSubstr("\"gapRecords\": 0,"));
  EXPECT_EQ(sender.End(SIGTERM), 0);
  EXPECT_THAT(qx::test::ReadFile(host.File("state/positions")), HasSubstr("\nnext 7\n"));
}

#ifdef QX_CLOCK_JUMP
TEST(RelayClock, JumpsOfTheWallClockChangeNothing) {
  const NatsServer server;
  ASSERT_EQ(CreateStream(SettingsFor(server)), std::nullopt);
  Host host("servers=" + server.Url() + "\n");
  host.Append(5);
  qx::test::WriteFile(host.File("jump"), "0\n");
  QxrelayProcess sender = host.Send({"LD_PRELOAD=" QX_CLOCK_JUMP, "QX_CLOCK_JUMP=" + host.File("jump")});
  EXPECT_TRUE(HasMessages(SettingsFor(server), 2)) << host.Log();
  std::uint64_t messages = 2;
  for (const char* const jump : {"-86400\n", "86400\n", "-3\n"}) {
    qx::test::WriteFile(host.File("jump"), jump);
    host.Append(1);
    EXPECT_TRUE(HasMessages(SettingsFor(server), ++messages)) << jump << host.Log();
  }
  EXPECT_EQ(sender.End(SIGTERM), 0);
  EXPECT_EQ(host.Log(), "qxrelay: connected\nqxrelay: 1 reports, 8 records sent, 0 lost, not connected\n");
}
#endif

#ifdef QX_ADDRESS_SANITIZER  // it keeps freed memory for a while
constexpr long kGrowthKibMax = 64L * 1024;
#else
constexpr long kGrowthKibMax = 1024;
#endif

// Processor time in milliseconds and memory in KiB of a process.
struct Cost {
  long cpu_ms = 0;
  long memory_kib = 0;
};

Cost CostOf(pid_t process) {
  const std::string directory = "/proc/" + std::to_string(process);
  const std::string stat = qx::test::ReadFile(directory + "/stat");
  unsigned long user = 0;
  unsigned long system = 0;
  unsigned long pages = 0;
  EXPECT_EQ(std::sscanf(stat.c_str() + stat.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                        &system),
            2);
  EXPECT_EQ(std::sscanf(qx::test::ReadFile(directory + "/statm").c_str(), "%*u %lu", &pages), 1);
  return {.cpu_ms = static_cast<long>(user + system) * 1000 / sysconf(_SC_CLK_TCK),
          .memory_kib = static_cast<long>(pages) * sysconf(_SC_PAGESIZE) / 1024};
}

// Each fault has a server and a sender of 20 reports of its own; all of them run at the same time.
TEST(RelayFaults, EachFaultIsReportedAndCostsNeitherTimeNorMemory) {
  struct Row {
    std::string server;  // configuration
    std::string stream;  // settings
    bool has_stream;
    std::string reported;
  };
  const qx::test::TempDir dir;
  qx::test::WriteFile(dir.File("password"), "secret\n");
  qx::test::WriteFile(dir.File("wrong"), "wrong\n");
  const std::string users =
      "authorization { users = [ {user: \"op\", password: \"secret\"}, {user: \"h\", password: \"secret\", "
      "permissions: {publish: [\"none\"], subscribe: [\"_INBOX_h.>\"]}} ] }\n";
  const Row rows[] = {
      {users, "user=h\npassword_file=" + dir.File("wrong"), true, "the servers refuse the credentials: check user"},
      {users, "user=h\npassword_file=" + dir.File("password"), true, "Permissions Violation for Publish to"},
      {"", "", false, "is there a stream QX (\"qxrelay stream create\")"},
      {"", "servers=nats://127.0.0.1:1", false, "cannot connect to the servers"},
  };
  std::vector<std::unique_ptr<NatsServer>> servers;
  std::vector<std::unique_ptr<Host>> hosts;
  std::vector<std::unique_ptr<QxrelayProcess>> senders;
  for (const Row& row : rows) {
    servers.push_back(std::make_unique<NatsServer>(row.server));
    if (row.has_stream) {
      ASSERT_EQ(CreateStream(SettingsFor(*servers.back(), "op", dir.File("password"))), std::nullopt);
    }
    const std::string address = row.stream.starts_with("servers") ? "" : "servers=" + servers.back()->Url() + "\n";
    hosts.push_back(std::make_unique<Host>(address + row.stream));
    for (int i = 0; i < 20; ++i) hosts.back()->Append(3, "r" + std::to_string(i));
    senders.push_back(std::make_unique<QxrelayProcess>(Arguments{"send", "--config", hosts.back()->Config()},
                                                       hosts.back()->File("log")));
  }
  for (std::size_t i = 0; i < std::size(rows); ++i) EXPECT_TRUE(hosts[i]->Logged(rows[i].reported)) << hosts[i]->Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::vector<Cost> before;
  std::vector<std::size_t> logged;
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    before.push_back(CostOf(senders[i]->Id()));
    logged.push_back(hosts[i]->Log().size());
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const Cost after = CostOf(senders[i]->Id());
    EXPECT_LE(after.cpu_ms - before[i].cpu_ms, 300) << rows[i].reported;
    EXPECT_LE(after.memory_kib - before[i].memory_kib, kGrowthKibMax) << rows[i].reported;
    EXPECT_LE(hosts[i]->Log().size() - logged[i], 20 * 200U) << hosts[i]->Log();
    EXPECT_EQ(senders[i]->End(SIGTERM), 0);
  }
}

}  // namespace
