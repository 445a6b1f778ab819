// Tests the sender of a host, with a stream in memory and a clock that the test sets. Some tests make the stream fail,
// and check what the sender does then.
#include "tools/qxrelay/send/Sender.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/SendingHost.h"

namespace {

using qx::relay::DecodeMessage;
using qx::relay::EncodeMessage;
using qx::relay::MessageHead;
using qx::relay::MessageKind;
using qx::relay::SendContext;
using qx::relay::Sender;
using qx::relay::SenderState;
using qx::relay::TimeMs;
using qx::test::FakeStream;
using qx::test::Receive;
using qx::test::ReceivedReport;
using testing::HasSubstr;
using Fault = FakeStream::Fault;
using Words = std::vector<std::string>;

using RelaySender = qx::test::SendingHost;

TEST_F(RelaySender, RecordsArriveOnceAndInOrder) {
  Append(5);
  Start();
  Run(100);
  ExpectAll();
  for (int i = 0; i < 20; ++i) {
    Append(7);
    Run(20);
  }
  Run(100);
  ExpectAll();
  EXPECT_EQ(Received().incarnations.size(), 1U);
}

TEST_F(RelaySender, MessagesSayWhoSentThemAndHowFarTheStoreIs) {
  Append(3);
  Start();
  Run(100);
  const auto message = DecodeMessage(stream_.messages.back().payload);
  EXPECT_EQ(message.head.identity, state_->Identity().identity);
  EXPECT_EQ(message.head.session, 1U);
  EXPECT_EQ(message.head.first, 0U);
  EXPECT_EQ(message.head.hash_before, 0U);
  EXPECT_EQ(message.head.store_next, 3U);
  EXPECT_EQ(message.head.ring_slots, 100U);
  EXPECT_EQ(message.head.report, "load");
}

TEST_F(RelaySender, EachFaultOfARequestLosesAndRepeatsNothing) {
  const Fault faults[] = {
      Fault::kLost,       Fault::kLostAnswer,       Fault::kLate,  Fault::kRefused, Fault::kNoStream,
      Fault::kDisconnect, Fault::kDisconnectStored, Fault::kStale, Fault::kNotSent};
  Append(1);
  Start();
  Run(100);
  for (const Fault fault : faults) {
    stream_.faults = {fault};
    Append(3);
    Run(3000);
    EXPECT_EQ(Received().records, written_) << static_cast<int>(fault);
    stream_.faults = {fault, fault, Fault::kNone, fault};
    Append(3);
    Run(6000);
    EXPECT_EQ(Received().records, written_) << static_cast<int>(fault);
  }
  ExpectAll();
  EXPECT_EQ(Received().incarnations.size(), 1U);
}

TEST_F(RelaySender, AKilledSenderContinuesWhereTheStreamIs) {
  Append(5);
  for (int i = 0; i < 6; ++i) {
    stream_.faults.clear();
    Start();
    Run(100);
    if (i % 2 == 0) stream_.faults = {Fault::kLostAnswer};
    Append(4);
    Run(30);
  }
  Start();
  Run(100);
  ExpectAll();
  EXPECT_EQ(Received().incarnations.size(), 1U);
}

TEST_F(RelaySender, WithoutItsStateASenderContinuesByTheNewestMessage) {
  Append(5);
  Start();
  Run(100);
  Append(5);
  Start(true, "other state");
  Run(100);
  ExpectAll();
  EXPECT_EQ(Received().incarnations.size(), 1U);
}

TEST_F(RelaySender, WithoutTheNewestMessageItSendsAgainWhatTheRingHas) {
  Append(5);
  Start();
  Run(100);
  const auto before = Received().incarnations;
  stream_.messages.clear();  // expired, purged, or lost by all servers
  Append(2);
  Start();
  Run(100);
  ExpectAll();
  EXPECT_EQ(Received().incarnations, before);
}

TEST_F(RelaySender, WhatServersLostIsSentAgainIfTheRingHasIt) {
  Start();
  for (int i = 0; i < 5; ++i) {
    Append(10);
    Run(50);
  }
  const auto count = stream_.messages.size();
  ASSERT_GE(count, 5U);
  stream_.messages.resize(count - 3);
  Append(1);
  Run(2000);
  ExpectAll();
}

TEST_F(RelaySender, WhatServersLostAndTheRingHasNotIsACountedGap) {
  slots_ = 20;
  Start();
  for (int i = 0; i < 5; ++i) {
    Append(10);
    Run(100);
  }
  stream_.messages.resize(3);  // the about message, and 20 records
  Append(1);
  Run(2000);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.gap, 51 - 20 - 19U) << "the ring has 20 records, of which the oldest is not sent";
  EXPECT_EQ(report.records.size(), 39U);
  EXPECT_EQ(report.next, 51U);
}

TEST_F(RelaySender, AGapHasTheExactCountAndNothingElseIsLost) {
  slots_ = 20;
  Append(5);
  Start();
  Run(100);
  stream_.connect_problem = "no servers";
  stream_.faults = {Fault::kDisconnect};
  Append(100);
  Run(500);
  stream_.connect_problem.reset();
  Run(10000);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.gap, 81U) << "105 records, 5 sent, 19 in the ring that can be sent";
  EXPECT_EQ(report.records.size(), 24U);
  EXPECT_EQ(report.records.back(), written_.back());
  EXPECT_EQ(report.holes, 0U);
  EXPECT_EQ(context_->counters.gap_records, 81U);
  Append(3);
  Run(100);
  EXPECT_EQ(Received().records.back(), written_.back());
}

TEST_F(RelaySender, RecordsAfterAGapAreHeldWhileTheGapIsInFlight) {
  slots_ = 20;
  Append(5);
  Start();
  Run(100);
  stream_.faults = {Fault::kNone};
  Append(60);
  for (int i = 0; i < 10; ++i) {
    Run(3);
    Append(30);  // more than the ring holds, between any two steps
  }
  Run(100);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.next, written_.size());
  EXPECT_EQ(report.records.size() + report.gap, written_.size());
  EXPECT_GT(report.records.size(), 5U + 19U + 19U) << "each gap is followed by records";
}

TEST_F(RelaySender, ARecordOverTheLimitIsCountedAndSkipped) {
  stream_.payload_max = 2000;
  batch_ = 1000;
  Start();
  Append(2);
  Append(1, "load", 3000);
  Append(2);
  Run(500);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.records, (Words{written_[0], written_[1], written_[3], written_[4]}));
  EXPECT_EQ(report.gap, 1U);
  EXPECT_EQ(context_->counters.over_limit, 1U);
  EXPECT_EQ(Lines("is larger than a message may be, and is skipped"), 1U);
}

TEST_F(RelaySender, AStoreThatIsStartedOverHasANewIncarnation) {
  Append(5);
  Start();
  Run(100);
  const std::vector<std::pair<const char*, const char*>> ways = {{"emptied", "i"}, {"deleted", "d"}};
  std::size_t incarnations = 1;
  for (const auto& [what, way] : ways) {
    for (const char* const ending : {".ind", ".dat"}) {
      if (*way == 'i') qx::test::WriteFile(Path("load") + ending, "");
      if (*way == 'd') std::filesystem::remove(Path("load") + ending);
    }
    Run(60);
    Append(2);
    Run(6000);
    EXPECT_EQ(Received().incarnations.size(), ++incarnations) << what;
    EXPECT_EQ(Received().records, written_) << what;
  }
  EXPECT_EQ(Lines("the store was started over or replaced"), 2U);
}

TEST_F(RelaySender, ARestoredBackupHasANewIncarnationAndOthersContinue) {
  Append(5);
  const std::string index = qx::test::ReadFile(Path("load") + ".ind");
  const std::string data = qx::test::ReadFile(Path("load") + ".dat");
  Append(4);
  Start();
  Run(100);
  ExpectAll();
  qx::test::WriteFile(Path("load") + ".ind", index);
  qx::test::WriteFile(Path("load") + ".dat", data);
  Append(1, "other");
  Run(1500);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.incarnations.size(), 2U);
  EXPECT_EQ(report.records.size(), 9U + 5U) << "what the backup has is sent as a new life of the report";
  EXPECT_EQ(Received("other").records.size(), 1U);
}

TEST_F(RelaySender, ADamagedReportIsNamedAndOthersContinue) {
  Append(5);
  Start();
  Run(100);
  qx::test::WriteFile(Path("load") + ".ind", std::string(24, '\xFF'));
  Append(1, "other");
  Run(2000);
  EXPECT_EQ(Lines("report load: the files contradict each other"), 1U);
  EXPECT_EQ(Received("other").records.size(), 1U);
}

TEST_F(RelaySender, ASalvagedReportIsRecognised) {
  slots_ = 50;
  Append(60);
  Start();
  Run(100);
  const std::size_t sent = Received().records.size();
  CReportFileBase store;
  std::filesystem::remove(Path("load") + ".ind");
  std::filesystem::remove(Path("load") + ".dat");
  ASSERT_TRUE(store.Open(Path("load").c_str(), 80));
  for (std::size_t i = 15; i < 60; ++i) {
    ASSERT_TRUE(store.writeLine(written_[i].substr(0, written_[i].size() - 2).c_str()));
  }
  store.Close();
  Append(3);
  Run(6000);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.incarnations.size(), 2U);
  EXPECT_EQ(report.records.size(), sent + 3) << "nothing comes twice";
  EXPECT_EQ(Lines("it still has the last sent records"), 1U);
}

TEST_F(RelaySender, AnotherMachinesMessageStopsTheReportUntilItIsTakenOver) {
  Append(5);
  Start();
  Run(100);
  Start(false, "clone");
  Append(1);
  Run(3000);
  EXPECT_EQ(Received().records.size(), 5U);
  EXPECT_EQ(sender_->Stopped(), 1U);
  EXPECT_GE(Lines("is from another machine"), 1U);
  Start(true, "clone");
  Run(100);
  ExpectAll();
}

// Two senders have the same state directory, restored or cloned with its identity. The sender that started later
// continues.
TEST_F(RelaySender, ALaterSessionStopsTheEarlierOneWithinSeconds) {
  Append(5);
  Start();
  Run(100);
  MessageHead head = DecodeMessage(stream_.messages.back().payload).head;
  head.session = 2;
  head.kind = MessageKind::kEmpty;
  head.first += head.count;
  head.count = 0;
  stream_.Store("qx.report.h.load", EncodeMessage(head));
  const int requests = stream_.requests;
  Append(1);
  Run(3000);
  EXPECT_EQ(sender_->Stopped(), 1U);
  EXPECT_EQ(Lines("was started later"), 1U);
  EXPECT_EQ(stream_.requests, requests + 1) << "one message, which is refused";
}

// The report has no new records. The earlier sender finds the labels of the later one.
TEST_F(RelaySender, ALaterSenderIsFoundWithinSecondsWithoutAnyRecord) {
  Append(5);
  Start();
  Run(100);
  MessageHead head = DecodeMessage(stream_.messages.front().payload).head;
  ASSERT_EQ(head.kind, MessageKind::kAbout);
  ++head.session;
  stream_.Store("qx.about.h", EncodeMessage(head));
  Run(6000);
  EXPECT_EQ(sender_->Stopped(), 1U);
  EXPECT_EQ(Lines("was started later"), 1U);
  const std::size_t count = stream_.messages.size();
  Append(1, "other");
  Run(3000);
  EXPECT_EQ(sender_->Stopped(), 2U);
  EXPECT_EQ(stream_.messages.size(), count);
}

TEST_F(RelaySender, ACloneWithAnIdentityOfItsOwnDoesNotStopTheFirst) {
  Append(5);
  Start();
  Run(100);
  Start(false, "clone");
  Run(6000);
  EXPECT_EQ(sender_->Stopped(), 1U);
  Start();
  Append(1);
  Run(6000);
  EXPECT_EQ(sender_->Stopped(), 0U);
  ExpectAll();
}

TEST_F(RelaySender, ForeignDataUnderItsSubjectIsReportedAndPassed) {
  Append(5);
  Start();
  Run(100);
  stream_.Store("qx.report.h.load", "not a message");
  Append(2);
  Run(2000);
  EXPECT_GE(Lines("is not from a sender"), 1U);
  stream_.messages.erase(std::remove_if(stream_.messages.begin(), stream_.messages.end(),
                                        [](const auto& message) { return message.payload == "not a message"; }),
                         stream_.messages.end());
  ExpectAll();
}

TEST_F(RelaySender, AMessageOfANewerVersionStopsTheReport) {
  Append(5);
  std::string newer = EncodeMessage({.report = "load"});
  newer[3] = 2;
  stream_.Store("qx.report.h.load", newer);
  Start();
  Run(3000);
  EXPECT_EQ(sender_->Stopped(), 1U);
  EXPECT_EQ(stream_.LastOf("qx.report.h.load"), 1U);
}

TEST_F(RelaySender, WhileServersAreAwayThereIsNoBusyLoop) {
  Append(5);
  stream_.connect_problem = "cannot connect";
  Start();
  Run(60000);
  EXPECT_LT(stream_.connects, 60);
  EXPECT_GT(stream_.connects, 10);
  EXPECT_EQ(Lines("cannot connect"), 1U);
  stream_.connect_problem.reset();
  Run(6000);
  ExpectAll();
}

TEST_F(RelaySender, WhileAStreamRefusesThereIsNoBusyLoop) {
  Append(5);
  Start();
  stream_.faults.assign(60, Fault::kRefused);
  Run(60000);
  EXPECT_LT(stream_.requests, 80);
  EXPECT_EQ(Lines("the stream QX refuses a message: no"), 1U);
  stream_.faults.clear();
  Run(11000);
  ExpectAll();
}

TEST_F(RelaySender, AReportWithoutNewsIsNotOpenedAtEveryPoll) {
  wall_jump_ = 900'000'000'000;  // the files are old
  Append(3);
  Start();
  Run(3000);
  const std::uint64_t opens = context_->counters.opens;
  Run(20000);
  EXPECT_LT(context_->counters.opens - opens, 20U) << "400 polls";
  for (int i = 0; i < 5; ++i) {
    Append(1);
    Run(100);
    ExpectAll();
    Run(2000);
  }
  qx::test::WriteFile(Path("load") + ".ind", "");
  qx::test::WriteFile(Path("load") + ".dat", "");
  Append(1);
  Run(100);
  EXPECT_EQ(Received().records, written_);
  EXPECT_EQ(Received().incarnations.size(), 2U);
}

TEST_F(RelaySender, AClockThatJumpsChangesNothing) {
  Append(1);
  Start();
  Run(100);
  for (const TimeMs jump : {TimeMs{-400'000'000'000}, TimeMs{900'000'000'000}}) {
    wall_jump_ = jump;
    Append(2);
    Run(100);
    ExpectAll();
    const std::int64_t sent = DecodeMessage(stream_.messages.back().payload).head.sent_ms;
    EXPECT_NEAR(static_cast<double>(sent), static_cast<double>(now_ + jump + 1'700'000'000'000), 200.0);
  }
}

TEST_F(RelaySender, AtMostFourLookUpsAreInFlight) {
  for (int i = 0; i < 20; ++i) Append(1, "r" + std::to_string(i));
  stream_.faults.assign(1000, Fault::kLost);
  Start();
  Run(500);
  EXPECT_EQ(stream_.look_ups, 4 + 1) << "one of them is that of the host itself";
  stream_.faults.clear();
  Run(10000);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Received("r" + std::to_string(i)).records.size(), 1U) << i;
}

TEST_F(RelaySender, StartsAreSpread) {
  settings_.spread = std::chrono::milliseconds(30000);
  Append(1);
  std::vector<TimeMs> starts;
  for (int i = 0; i < 20; ++i) {
    Start();
    const TimeMs begin = now_;
    while (!sender_->IsConnected()) Run(10);
    starts.push_back(now_ - begin);
  }
  EXPECT_LE(*std::max_element(starts.begin(), starts.end()), 30010);
  EXPECT_GT(*std::max_element(starts.begin(), starts.end()), 15000);
  EXPECT_LT(*std::min_element(starts.begin(), starts.end()), 15000);
}

TEST_F(RelaySender, LabelsAndNamesFilesFollow) {
  labels_ = {"site=north", "role=db"};
  Append(1);
  qx::test::WriteFile(Path("load") + ".names", "[A]\nx=1\n");
  Start();
  Run(2500);
  const auto about = std::find_if(stream_.messages.begin(), stream_.messages.end(),
                                  [](const auto& message) { return message.subject == "qx.about.h"; });
  ASSERT_NE(about, stream_.messages.end());
  EXPECT_EQ(DecodeMessage(about->payload).texts, (std::vector<std::string_view>{"site=north", "role=db"}));
  const auto names = [&] {
    std::string text = "(none)";
    for (const auto& stored : stream_.messages) {
      if (stored.subject != "qx.names.h.load") continue;
      const auto message = DecodeMessage(stored.payload);
      text = message.texts.empty() ? "(removed)" : std::string(message.texts.front());
    }
    return text;
  };
  EXPECT_EQ(names(), "[A]\nx=1\n");
  qx::test::WriteFile(Path("load") + ".names", "[A]\nx=12\n");
  Run(1500);
  EXPECT_EQ(names(), "[A]\nx=12\n");
  std::filesystem::remove(Path("load") + ".names");
  Run(1500);
  EXPECT_EQ(names(), "(removed)");
}

TEST_F(RelaySender, OnlySelectedReportsAreSent) {
  settings_.include = {"a*"};
  settings_.exclude = {"ab"};
  for (const char* const report : {"a", "ab", "b"}) Append(1, report);
  Start();
  Run(100);
  EXPECT_EQ(sender_->Reports(), 1U);
  Append(1, "ac");
  Run(1500);
  EXPECT_EQ(Received("ac").records.size(), 1U);
}

TEST_F(RelaySender, AStopInOrderKeepsThePositionWithoutTheStream) {
  Append(5);
  Start();
  Run(100);
  sender_->BeginStop();
  EXPECT_FALSE(sender_->IsBusy());
  sender_->Finish();
  const qx::relay::ReportStates saved = qx::relay::ReadStates(dir_.File("state"));
  ASSERT_EQ(saved.size(), 1U);
  EXPECT_EQ(saved.at("load").mark.next, 5U);
  EXPECT_EQ(saved.at("load").overlap.size(), 5U);
}

TEST_F(RelaySender, TheStateHasAnIncarnationBeforeItsFirstMessage) {
  for (const char* const report : {"a", "b", "c"}) Append(3, report);
  Start();
  std::size_t seen = 0;
  for (int i = 0; i < 100 && seen < 4; ++i) {
    Run(1);
    const qx::relay::ReportStates saved = qx::relay::ReadStates(dir_.File("state"));
    for (; seen < stream_.messages.size(); ++seen) {
      const auto message = DecodeMessage(stream_.messages[seen].payload);
      if (message.head.kind == MessageKind::kAbout) continue;
      ASSERT_TRUE(saved.contains(message.head.report));
      EXPECT_EQ(saved.at(message.head.report).mark.incarnation, message.head.incarnation);
    }
  }
  EXPECT_EQ(seen, 4U) << "the labels and three reports";
}

// A report that waits for a free look-up is not asked again until then.
TEST_F(RelaySender, ReportsThatWaitForALookUpAreNotAskedAgainAndAgain) {
  constexpr int kReports = 40;
  for (int i = 0; i < kReports; ++i) Append(1, "r" + std::to_string(i));
  stream_.faults.assign(6, Fault::kLost);  // all look-ups, until they count as unanswered
  Start();
  Run(200);
  int steps = 0;
  for (const TimeMs end = now_ + 700; now_ < end; ++steps) now_ = std::max(now_ + 1, sender_->Step(now_));
  EXPECT_LT(steps, 10);
  Run(3000);
  for (int i = 0; i < kReports; ++i) EXPECT_EQ(Received("r" + std::to_string(i)).records.size(), 1U) << i;
}

// Two settings: a poll every 5 ms with a linger time of 10 ms, and with a linger time of 200 ms.
TEST_F(RelaySender, AReportWithFewRecordsIsOpenedOnceOrTwiceForEachMessage) {
  for (const TimeMs linger : {10, 200}) {
    Start();
    context_->times.linger = linger;
    Append(1);
    Run(500);
    const std::uint64_t opens = context_->counters.opens;
    const std::uint64_t messages = context_->counters.messages;
    for (int i = 0; i < 20; ++i) {
      Append(1);
      Run(100);
    }
    EXPECT_GE(context_->counters.messages - messages, linger == 10 ? 20U : 8U);
    EXPECT_LE(context_->counters.opens - opens, 3 * 20U + 2);
    Run(500);
  }
  ExpectAll();
}

TEST_F(RelaySender, AfterATakeOverADamagedReportDoesNotStopTheOthers) {
  Append(3, "bad");
  written_.clear();
  Append(3);
  Start();
  Run(200);
  const std::string header = qx::test::ReadFile(Path("bad.ind"));
  qx::test::WriteFile(Path("bad.ind"), std::string(header.size(), '\xEE'));
  Start(true, "state2");
  Run(500);
  Append(2);
  Start(false, "state2");
  Run(500);
  EXPECT_EQ(sender_->RivalText(), "");
  EXPECT_EQ(sender_->Stopped(), 0U);
  ExpectAll();
  qx::test::WriteFile(Path("bad.ind"), header);
  Run(6000);
  EXPECT_EQ(DecodeMessage(stream_.messages.back().payload).head.identity, state_->Identity().identity);
  Start(false, "state");
  Run(500);
  EXPECT_NE(sender_->RivalText(), "") << "the machine that was replaced";
}

// Random appends, faults and kills. The text and the number of each record that arrives are checked.
TEST_F(RelaySender, RandomFaultsAndKillsLoseRepeatAndReorderNothing) {
  std::mt19937_64 random(qx::test::Seed("RelaySender"));
  slots_ = 400;
  batch_ = 300;
  Start();
  for (int i = 0; i < 400; ++i) {
    if (random() % 3 == 0) Append(random() % 12);
    if (random() % 3 == 0) stream_.faults.push_back(static_cast<Fault>(random() % 10));
    if (random() % 20 == 0) Start();
    Run(static_cast<TimeMs>(random() % 120));
  }
  stream_.faults.clear();
  Run(20000);
  const ReceivedReport report = Received();
  EXPECT_EQ(report.incarnations.size(), 1U);
  EXPECT_EQ(report.holes, 0U);
  EXPECT_EQ(report.next, written_.size());
  EXPECT_EQ(report.records.size() + report.gap, written_.size());
  std::size_t at = 0;  // what arrived is what was written, in order, with the gaps left out
  for (const std::string& record : report.records) {
    while (at < written_.size() && written_[at] != record) ++at;
    ASSERT_LT(at, written_.size()) << record;
    ++at;
  }
  EXPECT_GT(report.records.size(), written_.size() / 2);
}

// The check for other senders runs every five seconds, and must not send a message each time.
TEST_F(RelaySender, LabelsAreSentOnceAndAgainWhenTheStreamHasLostThem) {
  const auto labels = [&] {
    return std::count_if(stream_.messages.begin(), stream_.messages.end(),
                         [](const auto& message) { return message.subject == "qx.about.h"; });
  };
  Start();
  Run(30'000);
  EXPECT_EQ(labels(), 1);
  stream_.messages.clear();
  Run(6000);
  EXPECT_EQ(labels(), 1);
}

TEST_F(RelaySender, ServersThatAnswerNoLookUpAreReportedOnce) {
  Append(3);
  stream_.faults.assign(200, FakeStream::Fault::kLost);
  Start();
  Run(12'000);
  EXPECT_EQ(Lines("the servers do not answer: is there a stream QX (\"qxrelay stream create\")"), 1U);
  EXPECT_NE(sender_->Problem(), "");
  stream_.faults.clear();
  Run(6000);
  EXPECT_EQ(sender_->Problem(), "");
  ExpectAll();
}

}  // namespace
