// Tests what other programs, other users and hostile senders can do to the root of a collector.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "sdk/Writer.h"
#include "tests/qxrelay/Collector.h"

namespace {

using namespace qx::relay;
using qx::test::Collector;
using qx::test::FakeSender;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

void WriteStrangeRecord(const std::string& path, const std::string& text) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path.c_str(), 10));
  ASSERT_TRUE(store.writeLine(text.c_str()));
}

// A change of report "a" while its receiver is running or stopped, and the expected result.
struct Mishap {
  const char* name;
  std::function<void(const std::string& path)> happen;
  bool is_left_alone;           // otherwise it continues
  std::size_t records;          // that the report has in the end
  std::uint64_t lost;           // that are counted as lost
  bool is_whole_later = false;  // of a report that is left alone: once its files are removed, all records come again
};

TEST(RelayCollectorRoot, WhatHappensToAReportConcernsNoOther) {
  const Mishap mishaps[] = {
      {"deleted",
       [](const std::string& path) {
         fs::remove(path + ".ind");
         fs::remove(path + ".dat");
       },
       false, 8, 0},
      {"deleted with its base", [](const std::string& path) { fs::remove_all(fs::path(path).parent_path()); }, false, 3,
       0},
      {"emptied in place",
       [](const std::string& path) {
         fs::resize_file(path + ".ind", 0);
         fs::resize_file(path + ".dat", 0);
       },
       false, 8, 0},
      {"its index file is deleted", [](const std::string& path) { fs::remove(path + ".ind"); }, true, 0, 0, true},
      {"its header is damaged",
       [](const std::string& path) { qx::test::WriteFile(path + ".ind", std::string(60, '\xEE')); }, true, 0, 0, true},
      {"appended to by a stranger", [](const std::string& path) { WriteStrangeRecord(path, "strange"); }, true, 6, 0},
      {"restored from an older backup",
       [](const std::string& path) {
         fs::copy_file(path + ".ind.bak", path + ".ind", fs::copy_options::overwrite_existing);
         fs::copy_file(path + ".dat.bak", path + ".dat", fs::copy_options::overwrite_existing);
       },
       false, 8, 0},
      {"its base is deleted", [](const std::string& path) { fs::remove(path + ".relay"); }, false, 8, 0},
      {"replaced by another report",
       [](const std::string& path) {
         fs::remove_all(fs::path(path).parent_path());
         fs::create_directory(fs::path(path).parent_path());
         WriteStrangeRecord(path, "strange");
       },
       true, 1, 0},
  };
  for (const Mishap& mishap : mishaps) {
    for (const bool is_running : {true, false}) {
      SCOPED_TRACE(std::string(mishap.name) + (is_running ? ", while it runs" : ", while it is stopped"));
      Collector collector;
      FakeSender sender(collector.stream, "h", "a");
      FakeSender other(collector.stream, "h2", "b");
      sender.Records(2);
      other.Records(1);
      collector.Run();
      const std::string path = collector.PathOf("a");
      fs::copy_file(path + ".ind", path + ".ind.bak");
      fs::copy_file(path + ".dat", path + ".dat.bak");
      sender.Records(3);
      collector.Run();
      if (!is_running) collector.Kill();
      mishap.happen(path);
      if (!is_running) collector.Start();
      sender.Records(3);
      other.Records(1);
      collector.Run(6);
      EXPECT_EQ(collector.Records("b", "h2"), other.sent);
      EXPECT_EQ(collector.stream.acknowledged.size(), 5U);
      const CollectedReport report = collector.Report("a");
      EXPECT_EQ(report.state == CollectedState::kLeftAlone, mishap.is_left_alone) << report.trouble;
      if (mishap.records > 0) {
        EXPECT_EQ(collector.Records("a").size(), mishap.records);
      }
      if (!mishap.is_left_alone) {
        EXPECT_EQ(collector.Records("a").back(), sender.sent.back());
        EXPECT_EQ(report.counters.gap_records, mishap.lost);
        continue;
      }
      EXPECT_TRUE(collector.IsLogged("report h/a: left alone, its messages are skipped: ")) << collector.log.back();
      EXPECT_EQ(report.counters.skipped, 3U);
      // The report is left alone, also after a restart, until its files are removed. Then it continues with everything
      // that the stream still has, provided that its base shows the position.
      collector.Restart();
      sender.Records(1);
      collector.Run(6);
      EXPECT_EQ(collector.Report("a").state, CollectedState::kLeftAlone);
      fs::remove(path + ".ind");
      fs::remove(path + ".dat");
      collector.now += 10'000;
      sender.Records(2);
      collector.Run(6);
      if (mishap.is_whole_later) {
        EXPECT_EQ(collector.Records("a"), sender.sent);
      } else {
        EXPECT_THAT(collector.Records("a"), ElementsAre(sender.Text(9), sender.Text(10)));
      }
      EXPECT_EQ(collector.Report("a").state, CollectedState::kFollows);
    }
  }
}

// An operator appends to a report or restores it. This takes a shorter or a longer time than the receiver waits.
TEST(RelayCollectorRoot, AReportThatIsBusyIsWrittenLaterOrLeftAlone) {
  for (const bool is_long : {false, true}) {
    SCOPED_TRACE(is_long);
    Collector collector;
    FakeSender sender(collector.stream, "h", "a");
    FakeSender other(collector.stream, "h", "b");
    sender.Records(2);
    collector.Run();
    collector.Restart();
    qx::Writer writer;
    ASSERT_FALSE(writer.OpenExisting(collector.PathOf("a")).Failed());
    sender.Records(3);
    other.Records(1);
    collector.Run();
    EXPECT_EQ(collector.Records("b"), other.sent);
    EXPECT_EQ(collector.Report("a").state, CollectedState::kHeld);
    EXPECT_TRUE(collector.IsLogged("two writers overwrite"));
    EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1, 3));
    if (is_long) collector.Run(40);
    writer.Close();
    collector.now += 10'000;
    sender.Records(1);
    collector.Run();
    EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(collector.Records("a"), sender.sent) << "what was skipped is read again from the stream";
    EXPECT_EQ(collector.Report("a").counters.gap_records, 0U);
    EXPECT_EQ(collector.Report("a").counters.skipped, is_long ? 3U : 0U);
  }
}

TEST(RelayCollectorRoot, ARootHasOneReceiver) {
  const Collector collector;
  CollectorRoot second;
  EXPECT_EQ(second.Open(collector.Root()), "another receiver writes " + collector.Root());
}

TEST(RelayCollectorRoot, ARootOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs another user's directory";
  const qx::test::TempDir dir;
  ASSERT_EQ(chown(dir.Path().c_str(), 65534, 65534), 0);
  CollectorRoot root;
  EXPECT_THAT(root.Open(dir.Path()).value_or(""), HasSubstr("belongs to another user"));
}

// Another user, who may write to a directory below the root, makes links in it.
TEST(RelayCollectorRoot, LinksOfOtherUsersLeadNowhere) {
  if (geteuid() != 0) GTEST_SKIP() << "needs another user's links";
  for (const std::string name : {"a.ind", "a.dat", "a.relay", "a.names", "sub"}) {
    SCOPED_TRACE(name);
    Collector collector;
    fs::create_directory(collector.Root() + "/h");
    const std::string outside = collector.dir.File("outside");
    if (name == "sub") fs::create_directory(outside);
    const std::string link = collector.Root() + "/h/" + name;
    ASSERT_EQ(symlink(outside.c_str(), link.c_str()), 0);
    ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);
    const std::string report = name == "sub" ? "sub/deep/a" : "a";
    FakeSender sender(collector.stream, "h", report);
    FakeSender other(collector.stream, "h", "b");
    sender.Records(2);
    other.Records(2);
    collector.stream.Publish("qx.names.h." + std::string(name == "sub" ? "sub%2Fdeep%2Fa" : "a"),
                             EncodeMessage({.kind = MessageKind::kNames, .count = 1, .report = report},
                                           std::vector<std::uint32_t>{4}, "a=1\n"));
    collector.Run();
    EXPECT_EQ(collector.Records("b"), other.sent);
    EXPECT_EQ(collector.stream.acknowledged.size(), 3U);
    const bool is_untouched = name == "sub" ? fs::is_empty(outside) : !qx::test::Exists(outside);
    EXPECT_TRUE(is_untouched) << "nothing is created where the link leads";
    if (name != "a.names") {
      EXPECT_EQ(collector.Report(report).state, CollectedState::kLeftAlone);
    }
  }
}

TEST(RelayCollectorRoot, HostileMessagesAreRefusedAndDoNotComeAgain) {
  Collector collector;
  FakeSender good(collector.stream, "h", "a");
  const auto message = [](const std::string& report, const std::string& text = "x\r\n") {
    return EncodeMessage({.kind = MessageKind::kRecords, .incarnation = 1, .count = 1, .report = report},
                         std::vector<std::uint32_t>{static_cast<std::uint32_t>(text.size())}, text);
  };
  std::set<std::uint64_t> hostile;
  const auto publish = [&](const std::string& subject, const std::string& bytes) {
    hostile.insert(collector.stream.Publish(subject, bytes));
  };
  publish("qx.report.h.%2E%2E%2Fx", message("../x"));
  publish("qx.report.h.x", message("../x"));
  publish("qx.report.h.x", message("y"));
  publish("qx.report.%2E%2E.x", message("x"));
  publish("qx.report.h", message("x"));
  publish("qx.report.h.x.y", message("x"));
  publish("other", message("x"));
  publish("qx.names.h.x", message("x"));
  publish("qx.about.h", message("x"));
  publish("qx.report.h.x", "");
  publish("qx.report.h.x", "foreign data");
  publish("qx.report.h.x", message("x").substr(0, 80));
  publish("qx.report.h.x", message("x") + "z");
  publish("qx.report.h.x", message("x", "two\nrecords\r\n"));
  publish("qx.report.h.x", message("x", std::string("a\0b\r\n", 5)));
  std::string no_incarnation = EncodeMessage({.kind = MessageKind::kEmpty, .report = "x"});
  publish("qx.report.h.x", no_incarnation);
  good.Records(2);
  collector.Run();
  EXPECT_EQ(collector.stream.refused, hostile);
  EXPECT_EQ(collector.receiver->Counters().refused, hostile.size());
  EXPECT_EQ(collector.Records("a"), good.sent);
  std::set<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(collector.dir.Path())) {
    found.insert(fs::relative(entry.path(), collector.dir.Path()));
  }
  EXPECT_THAT(found, ElementsAre("root", "root/.qxrelay", "root/.qxrelay/about", "root/.qxrelay/lock", "root/h",
                                 "root/h/a.dat", "root/h/a.ind", "root/h/a.relay"));
}

// A message of a later version is not lost: it comes again after the upgrade.
TEST(RelayCollectorRoot, AMessageOfALaterVersionWaitsForTheUpgrade) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(1);
  std::string bytes = collector.stream.messages[1].payload;
  bytes[3] = 2;
  collector.stream.Publish("qx.report.h.b", bytes);
  collector.Run();
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1));
  EXPECT_THAT(collector.stream.refused, IsEmpty());
  EXPECT_TRUE(collector.IsLogged("upgrade this program"));
}

}  // namespace
