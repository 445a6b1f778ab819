// The state directory of a sender.
#include "tools/qxrelay/send/SenderState.h"

#include <gtest/gtest.h>

#include <string>

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
  // A second start in the same directory.
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

TEST_F(RelaySenderState, ReportsComeBackAlsoWithNamesThatAreNoFileNames) {
  SenderState state;
  ASSERT_EQ(state.Open(directory_, false), std::nullopt);
  for (const std::string& report :
       {std::string("load"), std::string("disk/sda"), std::string(), std::string(400, '/')}) {
    EXPECT_EQ(state.Load(report), std::nullopt);
    EXPECT_EQ(state.Save(SomeState(report)), std::nullopt);
    EXPECT_EQ(state.Load(report), SomeState(report));
  }
  EXPECT_EQ(state.Load("other"), std::nullopt);
}

}  // namespace
