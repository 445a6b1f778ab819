// Tests reading the settings of the relay, and the findings about wrong settings.
#include "tools/qxrelay/config/RelayConfig.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace {

using qx::relay::ConfigFindings;
using qx::relay::IsSelected;
using qx::relay::MatchesPattern;
using qx::relay::ReadConfig;
using qx::relay::RelayConfig;
using qx::relay::SendSettings;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Words = std::vector<std::string>;

class RelayConfigFile : public testing::Test {
 protected:
  ConfigFindings Read(const std::string& text) {
    qx::test::WriteFile(path_, text);
    config_ = RelayConfig();
    return ReadConfig(path_, config_);
  }

  qx::test::TempDir dir_;
  std::string path_ = dir_.File("qxrelay.ini");
  RelayConfig config_;
};

TEST_F(RelayConfigFile, AnEmptyFileLeavesTheDefaults) {
  EXPECT_EQ(Read(""), ConfigFindings());
  EXPECT_EQ(config_.stream.servers, Words{"nats://127.0.0.1:4222"});
  EXPECT_EQ(config_.stream.replicas, 3U);
  EXPECT_EQ(config_.send.linger, milliseconds(100));
}

TEST_F(RelayConfigFile, EachKeyIsRead) {
  EXPECT_EQ(
      Read("[stream]\nservers = nats://a:1, nats://b:2\nname=Q\nprefix=q.p\ndomain=d\nuser=u\npassword_file=/p\n"
           "credentials_file=/c\nca_file=/ca\ncertificate_file=/cert\nkey_file=/key\nage=7 d\nbytes=2 GiB\nreplicas=1\n"
           "[host]\nname=host3\n[labels]\nsite=north 1\nrole=db\n"
           "[send]\nreports=/r\nstate=/s\ninclude=a*, b\nexclude=ab*\nlinger=5 s\nbatch_bytes=32 KiB\npoll=7ms\n"
           "poll_idle=1 s\nspread=0 s\ntimeout=2 s\nrescan=1 min\n"
           "[metrics]\nlisten=[::1]:9464\nreports=load, disk/*\nseries_max=7\n"),
      ConfigFindings());
  EXPECT_EQ(config_.stream.servers, (Words{"nats://a:1", "nats://b:2"}));
  EXPECT_EQ(config_.stream.name + config_.stream.prefix + config_.stream.user + config_.stream.domain, "Qq.pud");
  EXPECT_EQ(config_.stream.password_file + config_.stream.credentials_file, "/p/c");
  EXPECT_EQ(config_.stream.ca_file + config_.stream.certificate_file + config_.stream.key_file, "/ca/cert/key");
  EXPECT_EQ(config_.stream.age, seconds(7 * 86400));
  EXPECT_EQ(config_.stream.bytes, 2147483648U);
  EXPECT_EQ(config_.stream.replicas, 1U);
  EXPECT_EQ(config_.host.name, "host3");
  EXPECT_EQ(config_.host.labels, (Words{"site=north 1", "role=db"}));
  EXPECT_EQ(config_.send.reports + config_.send.state, "/r/s");
  EXPECT_EQ(config_.metrics.listen, "[::1]:9464");
  EXPECT_EQ(config_.metrics.reports, (Words{"load", "disk/*"}));
  EXPECT_EQ(config_.metrics.series_max, 7U);
  EXPECT_EQ(config_.send.include, (Words{"a*", "b"}));
  EXPECT_EQ(config_.send.exclude, Words{"ab*"});
  EXPECT_EQ(config_.send.batch_bytes, 32768U);
  EXPECT_EQ(config_.send.linger, milliseconds(5000));
  EXPECT_EQ(config_.send.poll + config_.send.poll_idle, milliseconds(1007));
  EXPECT_EQ(config_.send.spread + config_.send.timeout + config_.send.rescan, milliseconds(62000));
}

TEST_F(RelayConfigFile, WhatIsWrongIsNamedAndTheDefaultStays) {
  EXPECT_EQ(
      Read("[send]\nlingr=5 s\nlinger=5\npoll=11 s\nbatch_bytes=2 "
           "MiB\nbatch_bytes=1\n[sent]\nx=1\n[stream]\nname=a.b\nprefix=a..b\n"
           "replicas=9\nservers= ,\n[host]\nname=../x\n[labels]\na.b=1\n[metrics]\nlisten=0.0.0.0:9464\n"),
      (ConfigFindings{
          "section [send], key \"lingr\": there is no such key",
          "section [send], key \"linger\": \"5\" is not a time such as \"100 ms\", \"5 s\" or \"7 d\"",
          "section [send], key \"poll\": \"11 s\" is not from 1 ms to 10 s",
          "section [send], key \"batch_bytes\": \"2 MiB\" is not from 1 to 1048576",
          "section [send], key \"batch_bytes\": the key occurs twice",
          "section [sent]: there is no such section",
          "section [stream], key \"name\": \"a.b\" is not a name: use 1 to 64 letters, digits, \"-\" and \"_\", "
          "beginning with a letter or a digit",
          "section [stream], key \"prefix\": \"a..b\" is not a prefix: use words of letters, digits, \"-\" and \"_\", "
          "with \".\" between them",
          "section [stream], key \"replicas\": \"9\" is not from 1 to 5",
          "section [stream], key \"servers\": \",\" is an empty list: use one value, or several with commas between "
          "them",
          "section [host], key \"name\": \"../x\" is not a host's name: use 1 to 64 letters, digits, \"-\", \"_\" and "
          "\".\", beginning with a letter or a digit",
          "section [labels], key \"a.b\": \"1\" is not a label: its key is 1 to 64 letters, digits, \"-\" and \"_\", "
          "and its value at most 256 bytes without control characters",
          "section [metrics], key \"listen\": \"0.0.0.0:9464\" is not a loopback address such as \"127.0.0.1:9464\"",
      }));
  EXPECT_EQ(config_.send.linger, milliseconds(100));
  EXPECT_EQ(config_.stream.name, "QX");
}

TEST_F(RelayConfigFile, AMissingFileIsAFinding) {
  EXPECT_EQ(ReadConfig(dir_.File("none.ini"), config_),
            ConfigFindings{"cannot open " + dir_.File("none.ini") + ": No such file or directory"});
}

// "## [send]" begins a section of the manual page, and "*batch\\_bytes*" a key.
TEST(RelayManual, ThePageHasEachKeyAndNoOther) {
  std::istringstream page(qx::test::ReadFile(QX_SOURCE_DIR "/docs/man/qxrelay.ini.5.scd"));
  std::set<std::string> in_page;
  std::string section;
  for (std::string line; std::getline(page, line);) {
    std::erase(line, '\\');
    if (line.starts_with("## [")) section = line.substr(4, line.size() - 5);
    const bool is_key = !section.empty() && line.starts_with('*') && line.ends_with('*');
    if (is_key && section != "labels") in_page.insert(section + " " + line.substr(1, line.size() - 2));
  }
  std::set<std::string> keys;
  for (const auto& [of_section, key] : qx::relay::ConfigKeys()) {
    keys.insert(std::string(of_section) + " " + std::string(key));
  }
  EXPECT_EQ(in_page, keys);
}

TEST(RelayPatterns, StarsAndQuestionMarksMatch) {
  struct Row {
    const char* pattern;
    const char* name;
    bool matches;
  };
  const Row rows[] = {{"*", "", true},
                      {"*", "a/b", true},
                      {"disk/*", "disk/sda", true},
                      {"disk/*", "disk", false},
                      {"a?c", "abc", true},
                      {"a?c", "ac", false},
                      {"*a*b", "xaxb", true},
                      {"*a*b", "xaxbx", false},
                      {"a*a*a*b", "aaaaaaaaaaaaaaaaaaaaa", false},
                      {"", "", true},
                      {"", "a", false},
                      {"ab**", "ab", true}};
  for (const Row& row : rows)
    EXPECT_EQ(MatchesPattern(row.pattern, row.name), row.matches) << row.pattern << " " << row.name;
}

TEST(RelayPatterns, ExcludedReportsAreNotSelected) {
  SendSettings send;
  EXPECT_TRUE(IsSelected(send, "any/thing"));
  send.include = {"a*", "b"};
  send.exclude = {"ab*"};
  EXPECT_TRUE(IsSelected(send, "ac"));
  EXPECT_TRUE(IsSelected(send, "b"));
  EXPECT_FALSE(IsSelected(send, "abc"));
  EXPECT_FALSE(IsSelected(send, "c"));
}

}  // namespace
