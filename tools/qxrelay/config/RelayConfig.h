// Reads the settings of qxrelay: one INI file for all its parts, read with CIniFile.
//
// A key that is not in the table of RelayConfig.cpp is a finding, because a misspelt key must not leave a default in
// force. A value that its key cannot have is a finding, too. Commas separate the elements of a list.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx::relay {

// [stream]: the servers, and the stream on them.
struct StreamSettings {
  std::vector<std::string> servers = {"nats://127.0.0.1:4222"};  // tried in a random order
  std::string name = "QX";                                       // of the JetStream stream
  std::string prefix = "qx";                                     // of its subjects
  std::string domain;  // of JetStream on these servers; empty: that of the server that is connected
  std::string user;
  std::string password_file;     // one line; nobody but the owner may read it
  std::string credentials_file;  // of a user with a JWT, instead of user and password
  std::string ca_file;           // with one of the three TLS keys the connection is encrypted
  std::string certificate_file;
  std::string key_file;
  std::chrono::seconds age = std::chrono::hours(24 * 7);  // how long the stream keeps a message
  std::uint64_t bytes = std::uint64_t{16} * 1024 * 1024 * 1024;
  std::uint32_t replicas = 3;
};

// [host] and [labels]: the name of the sending host, and its labels.
struct HostSettings {
  std::string name;                 // of the host in the stream; empty: the host's own name
  std::vector<std::string> labels;  // "site=north", in the order of the file
};

// [send]
struct SendSettings {
  std::string reports;                       // the directory; empty: the report directory of this machine
  std::string state = "/var/lib/qxrelay";    // identity and positions
  std::vector<std::string> include = {"*"};  // patterns of report names; "*" also matches "/"
  std::vector<std::string> exclude;
  std::chrono::milliseconds linger{100};     // how long the first of the gathered records waits for others
  std::size_t batch_bytes = 65'536;          // of records, for a message
  std::chrono::milliseconds poll{20};        // how often a report that is being written is checked
  std::chrono::milliseconds poll_idle{250};  // the same for a report that is not being written
  std::chrono::milliseconds spread{30000};   // starts and reconnects are spread over this time
  std::chrono::milliseconds timeout{5000};   // for an acknowledgement or a look-up
  std::chrono::milliseconds rescan{5000};    // how often new reports are searched for
  std::size_t reports_max = 10'000;          // reports above this number are not sent
};

inline constexpr std::uint32_t kSlotsMax = 0x3FFFFFFF;  // of a ring

// [receive]
struct ReceiveSettings {
  std::string name;                                 // of the consumer; empty: the user of [stream], or this machine
  std::string root = "/var/lib/qxrelay-collected";  // one directory for each host
  std::uint32_t slots = 10'000;                     // of the ring of a new report
  std::size_t hosts_max = 10'000;                   // further hosts are not created
  std::size_t reports_max = 10'000;                 // of all hosts
  std::size_t host_reports_max = 1000;              // of one host
  std::chrono::milliseconds sync{1000};             // how often the file system is synced, and messages acknowledged
  std::chrono::milliseconds redeliver{30000};       // after this time, a message that is not acknowledged comes again
};

// [metrics]
struct MetricsSettings {
  std::string listen;                // a LoopbackAddress; empty: there are no metrics
  std::vector<std::string> reports;  // patterns of reports whose newest numbers are metrics, too
  std::size_t series_max = 10'000;   // of reports and their numbers; further ones are left out, and counted
};

struct RelayConfig {
  StreamSettings stream;
  HostSettings host;
  SendSettings send;
  ReceiveSettings receive;
  MetricsSettings metrics;
};

// The findings about the file: "section [send], key \"lingr\": there is no such key".
using ConfigFindings = std::vector<std::string>;

// Reads the file into `config`. Values with a finding keep their defaults. A file that cannot be read is one finding.
// The files and servers that the values name are not checked here, but by "qxrelay check". Throws std::bad_alloc.
// [any thread]
[[nodiscard]] ConfigFindings ReadConfig(const std::string& path, RelayConfig& config);

// Every key with its section, in the order of the sections, except those of [labels]. [any thread]
[[nodiscard]] std::vector<std::pair<std::string_view, std::string_view>> ConfigKeys();

// The first tokens of the subjects for requests to JetStream. [any thread]
//   no domain  => $JS.API
//   hub        => $JS.hub.API
[[nodiscard]] std::string ApiPrefix(const StreamSettings& stream);

// The end of the finding about a name that IsHostName refuses; its beginning is the quoted name.
inline constexpr std::string_view kHostNameAllowed =
    R"(is not a host's name: use 1 to 64 letters, digits, "-", "_" and ".", beginning with a letter or a digit)";

// The same for the name of a collector, which is one token of a subject.
inline constexpr std::string_view kCollectorNameAllowed =
    R"(is not a collector's name: use 1 to 64 letters, digits, "-" and "_", beginning with a letter or a digit)";

// Whether the name can be that of a stream, which is one token of a subject: "QX" => true, "a.b" => false. [any thread]
[[nodiscard]] bool IsStreamName(std::string_view name);

// Whether a pattern of `include` or `exclude` matches the whole name. "*" matches any bytes, "?" one byte.
//   "disk/*", "disk/sda"  => true
[[nodiscard]] bool MatchesPattern(std::string_view pattern, std::string_view name);

// Whether the settings select the report of this name. [any thread]
[[nodiscard]] bool IsSelected(const SendSettings& send, std::string_view report);

}  // namespace qx::relay
