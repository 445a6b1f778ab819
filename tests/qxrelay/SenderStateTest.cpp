// Tests the state directory of a sender.
#include "tools/qxrelay/send/SenderState.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/Support.h"

namespace {

using qx::relay::ReportState;
using qx::relay::SenderState;
using qx::relay::StateOfText;
using qx::relay::TextOfState;

ReportState SomeState(const std::string& report) {
  return {.report = report,
          .mark = {.incarnation = 0xABCDEF, .next = 12345678901, .hash_before = 0xFFFFFFFFFFFFFFFF, .ring_slots = 1000},
          .overlap = {1, 0xe5ad9b1904074ddb}};
}

class RelaySenderState : public testing::Test {
 protected:
  // Opens the directory again, as a second start does.
  [[nodiscard]] std::optional<std::string> OpenAgain(SenderState& state, bool take_over = false) const {
    return state.Open(directory_, take_over);
  }

  qx::test::TempDir dir_;
  std::string directory_ = dir_.File("state");
};

TEST(RelayReportState, ATextComesBackAndEachPrefixIsRefused) {
  EXPECT_EQ(
      TextOfState(SomeState("disk/sda")),
      "qxrelay-report 1\nreport disk%2Fsda\nincarnation 0000000000abcdef\nnext 12345678901\nhash ffffffffffffffff\n"
      "slots 1000\noverlap 0000000000000001 e5ad9b1904074ddb\nend\n");
  for (const std::string report : {"load", "", "a b\n%"}) {
    ReportState state = SomeState(report);
    EXPECT_EQ(StateOfText(TextOfState(state)), state);
    state.overlap.clear();
    EXPECT_EQ(StateOfText(TextOfState(state)), state);
  }
  const std::string text = TextOfState(SomeState("load"));
  for (std::size_t size = 0; size < text.size(); ++size)
    EXPECT_EQ(StateOfText(text.substr(0, size)), std::nullopt) << size;
}

TEST_F(RelaySenderState, AnIdentityIsMadeOnceAndSessionsRise) {
  qx::relay::HostIdentity identity = {};
  for (std::uint64_t session = 1; session <= 3; ++session) {
    SenderState state;
    ASSERT_EQ(state.Open(directory_, false), std::nullopt);
    if (session == 1) identity = state.Identity().identity;
    EXPECT_EQ(state.Identity().identity, identity);
    EXPECT_NE(state.Identity().identity, qx::relay::HostIdentity());
    EXPECT_EQ(state.BeginSession(0), std::nullopt);
    EXPECT_EQ(state.Identity().session, session);
  }
  SenderState state;
  ASSERT_EQ(state.Open(directory_, false), std::nullopt);
  EXPECT_EQ(state.BeginSession(41), std::nullopt);
  EXPECT_EQ(state.Identity().session, 42U);
}

TEST_F(RelaySenderState, OneSenderAtATimeUsesTheDirectory) {
  SenderState first;
  ASSERT_EQ(first.Open(directory_, false), std::nullopt);
  SenderState second;
  EXPECT_EQ(OpenAgain(second), "another sender uses " + directory_);
}

TEST_F(RelaySenderState, ADirectoryFromAnotherMachineIsRefusedUntilItIsTakenOver) {
  qx::relay::HostIdentity identity = {};
  {
    SenderState state;
    ASSERT_EQ(state.Open(directory_, false), std::nullopt);
    identity = state.Identity().identity;
  }
  const std::string path = directory_ + "/identity";
  const std::string text = qx::test::ReadFile(path);
  qx::test::WriteFile(path, text.substr(0, text.find("machine ")) + "machine 0123\n");
  {
    SenderState state;
    EXPECT_EQ(OpenAgain(state), directory_ +
                                    " was copied from another machine: remove it if both machines run, or start "
                                    "with --take-over");
  }
  {
    SenderState state;
    EXPECT_EQ(OpenAgain(state, true), std::nullopt);
    EXPECT_NE(state.Identity().identity, identity);
  }
  SenderState state;
  EXPECT_EQ(OpenAgain(state), std::nullopt);
}

TEST_F(RelaySenderState, ADamagedIdentityIsReportedAndNotReplaced) {
  {
    SenderState state;
    ASSERT_EQ(state.Open(directory_, false), std::nullopt);
  }
  qx::test::WriteFile(directory_ + "/identity", "qxrelay-identity 1\nidentity 12\n");
  SenderState state;
  EXPECT_EQ(OpenAgain(state), directory_ + "/identity is damaged: restore it, or remove it and start with --take-over");
  EXPECT_EQ(qx::test::ReadFile(directory_ + "/identity"), "qxrelay-identity 1\nidentity 12\n");
}

TEST_F(RelaySenderState, AllReportsComeBackFromOneFile) {
  const std::string names[] = {"load", "disk/sda", "", std::string(400, '/'), "a b\n%"};
  {
    SenderState state;
    ASSERT_EQ(state.Open(directory_, false), std::nullopt);
    EXPECT_EQ(state.Find("load"), nullptr);
    for (const std::string& name : names) state.Of(name) = SomeState(name);
    EXPECT_FALSE(state.IsTried(state.Changed()));
    EXPECT_EQ(state.Of("new").mark.incarnation, 0U);
    EXPECT_EQ(state.Write(), std::nullopt);
    EXPECT_FALSE(state.HasChanges());
  }
  SenderState state;
  ASSERT_EQ(state.Open(directory_, false), std::nullopt);
  for (const std::string& name : names) {
    ASSERT_NE(state.Find(name), nullptr);
    EXPECT_EQ(*state.Find(name), SomeState(name));
  }
  EXPECT_EQ(state.Find("new"), nullptr) << "without an incarnation there is nothing to keep";
}

// Waits for the write in the background.
std::optional<std::string> EndOfWrite(SenderState& state) {
  std::optional<std::string> problem;
  while (state.IsWriting()) {
    problem = state.EndWrite();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return problem;
}

TEST_F(RelaySenderState, AWriteInTheBackgroundHasTheStatesOfItsBeginning) {
  SenderState state;
  ASSERT_EQ(state.Open(directory_, false), std::nullopt);
  state.WriteInBackground();
  state.Of("load") = SomeState("load");
  const std::uint64_t first = state.Changed();
  state.BeginWrite();
  EXPECT_TRUE(state.IsWriting());
  EXPECT_FALSE(state.IsTried(first)) << "before EndWrite nothing counts as written";
  state.Of("disk") = SomeState("disk");
  const std::uint64_t second = state.Changed();
  EXPECT_EQ(EndOfWrite(state), std::nullopt);
  EXPECT_TRUE(state.IsTried(first));
  EXPECT_FALSE(state.IsTried(second));
  EXPECT_EQ(qx::relay::ReadStates(directory_).size(), 1U);
  state.BeginWrite();
  state.Of("swap") = SomeState("swap");
  (void)state.Changed();
  EXPECT_EQ(state.Write(), std::nullopt);
  EXPECT_FALSE(state.HasChanges());
  EXPECT_FALSE(state.IsWriting()) << "a write at once waits for the one in the background";
  EXPECT_EQ(qx::relay::ReadStates(directory_).size(), 3U);
}

TEST_F(RelaySenderState, AFailedWriteInTheBackgroundIsReportedOnce) {
  SenderState state;
  ASSERT_EQ(state.Open(directory_, false), std::nullopt);
  std::filesystem::create_directory(directory_ + "/positions");
  for (const bool is_in_background : {false, true}) {
    SCOPED_TRACE(is_in_background);
    if (is_in_background) state.WriteInBackground();
    state.Of("load") = SomeState("load");
    const std::uint64_t change = state.Changed();
    state.BeginWrite();
    EXPECT_TRUE(EndOfWrite(state).has_value());
    EXPECT_TRUE(state.IsTried(change));
    EXPECT_EQ(state.EndWrite(), std::nullopt);
  }
}

TEST_F(RelaySenderState, ADirectoryOfAnEarlierVersionIsTakenOver) {
  std::filesystem::create_directories(directory_ + "/reports");
  qx::test::WriteFile(directory_ + "/reports/load", TextOfState(SomeState("load")));
  qx::test::WriteFile(directory_ + "/reports/%hash-0123456789abcdef", TextOfState(SomeState(std::string(400, 'x'))));
  qx::test::WriteFile(directory_ + "/reports/damaged", "qxrelay-report 1\nreport damaged\n");
  for (const bool is_written : {false, true}) {
    SCOPED_TRACE(is_written);
    SenderState state;
    ASSERT_EQ(state.Open(directory_, false), std::nullopt);
    ASSERT_NE(state.Find("load"), nullptr);
    EXPECT_EQ(*state.Find("load"), SomeState("load"));
    EXPECT_NE(state.Find(std::string(400, 'x')), nullptr);
    EXPECT_EQ(state.Find("damaged"), nullptr);
    if (!is_written) {
      EXPECT_EQ(state.Write(), std::nullopt);
    }
  }
  EXPECT_FALSE(qx::test::Exists(directory_ + "/reports"));
}

// If a file was cut or damaged, the states before the damage are read.
TEST_F(RelaySenderState, WhatIsDamagedIsLeftOut) {
  std::filesystem::create_directory(directory_);
  const std::string first = TextOfState(SomeState("a"));
  const std::string text = first + TextOfState(SomeState("b"));
  for (std::size_t size = 0; size < text.size(); ++size) {
    qx::test::WriteFile(directory_ + "/positions", text.substr(0, size));
    EXPECT_EQ(qx::relay::ReadStates(directory_).size(), size >= first.size() ? 1U : 0U) << size;
  }
}

}  // namespace
