// Tests the functions of KrxRequestParams for security: validation data, privileges, credentials.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"
#include "tests/support/BlockBuilder.h"
#include "tests/support/Support.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::BlockDepartment;
using qx::test::TraceCapture;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> PrivilegesOf(const KrxRequestParams& params) {
  std::vector<const char*> names;
  const bool any = params.GetAvailablePrivileges(names);
  EXPECT_EQ(any, !names.empty());
  return {names.begin(), names.end()};
}

TEST(SecurityData, BlockWithoutElement61HasNone) {
  BlockBuilder block;
  block.Number(2, 77);
  KrxRequestParams params(block.Block());
  EXPECT_FALSE(params.IsSecurityDataAvailable());
  EXPECT_FALSE(params.FindSecurityValidationData());
  EXPECT_THAT(PrivilegesOf(params), IsEmpty());
}

TEST(SecurityData, Element61WithoutValueHasNone) {
  BlockBuilder block;
  block.Raw(61, kKrxTypeNested, nullptr);
  EXPECT_FALSE(KrxRequestParams(block.Block()).IsSecurityDataAvailable());
}

TEST(SecurityData, ListWithoutIndex65HasNone) {
  BlockBuilder block;
  block.Nested(61).Text(64, "a").Text(66, "b");
  EXPECT_FALSE(KrxRequestParams(block.Block()).IsSecurityDataAvailable());
}

TEST(SecurityData, Index65WithoutValueHasNone) {
  BlockBuilder block;
  block.ValidationData(nullptr);
  EXPECT_FALSE(KrxRequestParams(block.Block()).IsSecurityDataAvailable());
}

TEST(SecurityData, OnlyTheFirstIndex65Counts) {
  BlockBuilder block;
  krx_validation_data validation{};
  block.Nested(61).Raw(65, 0, nullptr).Raw(65, 0, &validation);
  EXPECT_FALSE(KrxRequestParams(block.Block()).IsSecurityDataAvailable());
}

TEST(SecurityData, ListWithZeroOrNegativeCountOrNullArrayHasNone) {
  krx_validation_data validation{};
  BlockBuilder block;
  auto& list = block.Nested(61);
  list.Raw(65, 0, &validation);
  const wcs_gendata* raw = block.Block();
  EXPECT_TRUE(KrxRequestParams(raw).IsSecurityDataAvailable());
  for (const int count : {0, -1}) {
    list.Block()->element_count = count;
    EXPECT_FALSE(KrxRequestParams(raw).IsSecurityDataAvailable()) << count;
  }
  list.Block()->element_count = 1;
  list.Block()->elements = nullptr;
  EXPECT_FALSE(KrxRequestParams(raw).IsSecurityDataAvailable());
}

TEST(SecurityData, NullEntriesOfTheListAreSkipped) {
  krx_validation_data validation{};
  BlockBuilder block;
  block.Nested(61).NullEntry().Raw(65, 0, &validation);
  EXPECT_TRUE(KrxRequestParams(block.Block()).IsSecurityDataAvailable());
}

TEST(SecurityData, TypesOfElements61And65AreNotChecked) {
  krx_validation_data validation{};
  BlockBuilder block;
  block.Nested(61, 0).Raw(65, -1, &validation);
  EXPECT_TRUE(KrxRequestParams(block.Block()).IsSecurityDataAvailable());
}

TEST(SecurityData, DataWithoutAuthorisationIsAvailableAndGrantsNothing) {
  krx_validation_data validation{};
  BlockBuilder block;
  block.ValidationData(&validation);
  KrxRequestParams params(block.Block());
  const TraceCapture trace(1);
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_FALSE(params.HasSecurityPrivilege("AccessPerformanceMgr"));
  EXPECT_THAT(trace.Entries(),
              ElementsAre("KrxReqestParams     : ## ERROR! No authorization data found in security validation data "
                          "structure!"));
}

TEST(SecurityData, PrivilegesOfAllDepartmentsFormOneSet) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"AccessPerformanceMgr", "Read"}}, {"Storage", {"Read", "Write"}}});
  KrxRequestParams params(block.Block());
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_THAT(PrivilegesOf(params), ElementsAre("AccessPerformanceMgr", "Read", "Write"));
}

TEST(SecurityData, RepeatedCallsDoNotGrowTheSet) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"Read", "Write"}}});
  KrxRequestParams params(block.Block());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_THAT(PrivilegesOf(params), ElementsAre("Read", "Write"));
}

TEST(SecurityData, LaterCallReadsTheSameDataAgain) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"Read"}}});
  KrxRequestParams params(block.Block());
  EXPECT_TRUE(params.FindSecurityValidationData());
  block.Header().element_count = 0;  // element 61 is not searched a second time
  EXPECT_TRUE(params.FindSecurityValidationData());
}

TEST(SecurityData, PrivilegeMustMatchInEveryByte) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"accessperformancemgr", "AccessPerformanceMgr2", "AccessPerformanceMg"}}});
  KrxRequestParams params(block.Block());
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_FALSE(params.HasSecurityPrivilege("AccessPerformanceMgr"));
  EXPECT_TRUE(params.HasSecurityPrivilege("accessperformancemgr"));
  EXPECT_FALSE(params.HasSecurityPrivilege(""));
}

TEST(SecurityData, PrivilegesAreKnownOnlyAfterTheSearch) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"Read"}}});
  KrxRequestParams params(block.Block());
  EXPECT_FALSE(params.HasSecurityPrivilege("Read"));
  EXPECT_TRUE(params.IsSecurityDataAvailable());
  EXPECT_TRUE(params.HasSecurityPrivilege("Read"));
}

TEST(SecurityData, AvailablePrivilegesComeInAscendingByteOrder) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"read", "\xC3\x84", "Zoom", "ReadAll", "Read", "_"}}});
  KrxRequestParams params(block.Block());
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_THAT(PrivilegesOf(params), ElementsAre("Read", "ReadAll", "Zoom", "_", "read", "\xC3\x84"));
}

TEST(SecurityData, AvailablePrivilegesAreAppendedAndEarlierEntriesCount) {
  BlockBuilder block;
  const KrxRequestParams none(block.Block());
  std::vector<const char*> names;
  EXPECT_FALSE(none.GetAvailablePrivileges(names));
  names = {"earlier entry"};
  EXPECT_TRUE(none.GetAvailablePrivileges(names));
  EXPECT_THAT(names, ElementsAre(testing::StrEq("earlier entry")));
}

TEST(SecurityData, NullDepartmentsAndPrivilegesAreSkipped) {
  const char* names[] = {nullptr, "Read", nullptr};
  krx_department department{};
  department.privilege_count = 3;
  department.privileges = names;
  krx_department* departments[] = {nullptr, &department};
  krx_authorization_data authorization{};
  authorization.department_count = 2;
  authorization.departments = departments;
  krx_validation_data validation{};
  validation.authorization = &authorization;
  BlockBuilder block;
  block.ValidationData(&validation);
  KrxRequestParams params(block.Block());
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_THAT(PrivilegesOf(params), ElementsAre("Read"));
}

TEST(SecurityData, NullPrivilegesAreNotCounted) {
  BlockBuilder block;
  block.Security("", {{"Operations", {nullptr, nullptr}}});
  KrxRequestParams params(block.Block());
  const TraceCapture trace(1);
  EXPECT_TRUE(params.FindSecurityValidationData());
  ASSERT_EQ(trace.Entries().size(), 1U);
  EXPECT_THAT(trace.Entries()[0], testing::HasSubstr("No privileges found for user"));
}

TEST(SecurityData, NegativeCountsAndNullArraysAreEmpty) {
  const char* names[] = {"Read"};
  krx_department department{};
  krx_department* departments[] = {&department};
  krx_authorization_data authorization{};
  krx_validation_data validation{};
  validation.authorization = &authorization;
  BlockBuilder block;
  block.ValidationData(&validation);
  struct Case {
    std::int32_t departments;
    krx_department** department_array;
    std::int32_t privileges;
    const char** privilege_array;
  };
  for (const Case& bad :
       {Case{-1, departments, 1, names}, Case{1, nullptr, 1, names}, Case{1, departments, -1, names},
        Case{1, departments, 1, nullptr}, Case{0, departments, 1, names}, Case{1, departments, 0, names}}) {
    authorization.department_count = bad.departments;
    authorization.departments = bad.department_array;
    department.privilege_count = bad.privileges;
    department.privileges = bad.privilege_array;
    KrxRequestParams params(block.Block());
    EXPECT_TRUE(params.FindSecurityValidationData());
    EXPECT_THAT(PrivilegesOf(params), IsEmpty());
  }
}

TEST(SecurityData, WholeSearchIsTracedLineByLine) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"AccessPerformanceMgr", "Read"}}, {nullptr, {}}});
  KrxRequestParams params(block.Block());
  const TraceCapture trace(6);
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_EQ(trace.Text(),
            "KrxReqestParams     : Find security validation data\n"
            "KrxReqestParams     :   security interceptor structure found\n"
            "KrxReqestParams     :   -> security validation data found, get authorization data...\n"
            "KrxReqestParams     :     auth user ID=\"admin\", number of departments=2\n"
            "KrxReqestParams     :     department[0]: \"Operations\", number of privileges=2\n"
            "KrxReqestParams     :       privilege: \"AccessPerformanceMgr\"\n"
            "KrxReqestParams     :       privilege: \"Read\"\n"
            "KrxReqestParams     :     department[1]: \"\", number of privileges=0\n");
}

TEST(SecurityData, SearchWithoutResultIsTracedUnlessElement61IsMissing) {
  BlockBuilder without;
  BlockBuilder with;
  with.Nested(61);
  const TraceCapture trace(6);
  EXPECT_FALSE(KrxRequestParams(without.Block()).FindSecurityValidationData());
  EXPECT_FALSE(KrxRequestParams(with.Block()).FindSecurityValidationData());
  EXPECT_EQ(trace.Text(),
            "KrxReqestParams     : Find security validation data\n"
            "KrxReqestParams     : Find security validation data\n"
            "KrxReqestParams     :   security interceptor structure found\n"
            "KrxReqestParams     :   -> security validation data NOT found!\n");
}

TEST(SecurityData, LevelFourLeavesOutTheDepartments) {
  BlockBuilder block;
  block.Security("admin", {{"Operations", {"Read"}}});
  KrxRequestParams params(block.Block());
  const TraceCapture trace(4);
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_EQ(trace.Text(),
            "KrxReqestParams     : Find security validation data\n"
            "KrxReqestParams     :   -> security validation data found, get authorization data...\n"
            "KrxReqestParams     :     auth user ID=\"admin\", number of departments=1\n");
}

TEST(SecurityData, NullUserIdLeavesTheUserIdUnchanged) {
  krx_authorization_data authorization{};
  krx_validation_data validation{};
  validation.authorization = &authorization;
  BlockBuilder block;
  block.ValidationData(&validation);
  KrxRequestParams params(block.Block());
  const auto user_after = [&](const char* user_id) {
    authorization.user_id = user_id;
    const TraceCapture trace(4);
    EXPECT_TRUE(params.FindSecurityValidationData());
    return trace.Entries().at(2);
  };
  EXPECT_EQ(user_after("admin"), "KrxReqestParams     :     auth user ID=\"admin\", number of departments=0");
  EXPECT_EQ(user_after(nullptr), "KrxReqestParams     :     auth user ID=\"admin\", number of departments=0");
  EXPECT_EQ(user_after(""), "KrxReqestParams     :     auth user ID=\"\", number of departments=0");
}

TEST(SecurityData, QuirkNoPrivilegesLineShowsANumberInsteadOfTheUser) {
  BlockBuilder block;
  block.Security("administrator-of-everything", {});
  KrxRequestParams params(block.Block());
  const TraceCapture trace(1);
  EXPECT_TRUE(params.FindSecurityValidationData());
  EXPECT_THAT(PrivilegesOf(params), IsEmpty());
  const auto entries = trace.Entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_THAT(entries[0],
              testing::MatchesRegex("KrxReqestParams     : ## ERROR! No privileges found for user \"-?[0-9]+\" "
                                    "\\(something wrong here\\)!"));
}

TEST(SecurityData, Low32KeepsTheLowHalfOfAnAddress) {
  EXPECT_EQ(qx::provider::Low32(std::uint64_t{0x00007F00FEDCBA98U}), 0xFEDCBA98U);
  EXPECT_EQ(qx::provider::Low32(reinterpret_cast<const void*>(std::uintptr_t{0x00007F00FEDCBA98U})), 0xFEDCBA98U);
  EXPECT_EQ(qx::provider::Low32(static_cast<const void*>(nullptr)), 0U);
}

// The three texts that GetUserCredentials has set; each was "?" before.
struct Login {
  explicit Login(BlockBuilder& block) : Login(block.Block()) {}
  explicit Login(const wcs_gendata* block)
      : found(KrxRequestParams(block).GetUserCredentials(user_id, password, domain)) {}
  std::string Text() const { return user_id + " " + password + " " + domain; }

  std::string user_id = "?";
  std::string password = "?";
  std::string domain = "?";
  bool found;
};

TEST(UserCredentials, ComeFromTheBlockWhoseMarkerIsOne) {
  BlockBuilder block;
  auto& first = block.Nested(14);
  auto& second = first.Next();
  first.Word(16, 2);
  second.Word(16, 1);
  second.Nested(19).Text(30, "admin").Text(31, "secret").Text(29, "example");
  const Login login(block);
  EXPECT_TRUE(login.found);
  EXPECT_EQ(login.Text(), "admin secret example");
}

TEST(UserCredentials, FirstBlockMarkedOneWinsEvenWithoutAList) {
  BlockBuilder block;
  auto& first = block.Nested(14);
  auto& second = first.Next();
  first.Word(16, 1);
  second.Word(16, 1);
  second.Nested(19).Text(30, "admin");
  const Login login(block);
  EXPECT_FALSE(login.found);
  EXPECT_EQ(login.Text(), "? ? ?");
}

TEST(UserCredentials, ChainWithoutAMarkedBlockHasNone) {
  BlockBuilder block;
  auto& first = block.Nested(14);
  first.Word(16, 0).Nested(19).Text(30, "admin");
  first.Next().Nested(19).Text(30, "admin");
  const Login login(block);
  EXPECT_FALSE(login.found);
  EXPECT_EQ(login.Text(), "? ? ?");
}

TEST(UserCredentials, MarkerIsASixteenBitWord) {
  const unsigned char marker[] = {1, 0, 0xEE, 0xEE};
  const unsigned char not_marker[] = {1, 1, 0, 0};
  BlockBuilder block;
  auto& nested = block.Nested(14);
  nested.Raw(16, 0, not_marker).Nested(19).Text(30, "admin");
  EXPECT_FALSE(Login(block).found);
  nested.Entry(0)->value = const_cast<unsigned char*>(marker);
  EXPECT_TRUE(Login(block).found);
  nested.Entry(0)->value = nullptr;
  EXPECT_FALSE(Login(block).found);
}

TEST(UserCredentials, NeedAnElementFourteenOfTypeNested) {
  BlockBuilder missing;
  EXPECT_FALSE(Login(missing).found);
  BlockBuilder no_value;
  no_value.Raw(14, kKrxTypeNested, nullptr);
  EXPECT_FALSE(Login(no_value).found);
  BlockBuilder other_type;
  other_type.Nested(14, 8).Word(16, 1).Nested(19).Text(30, "admin");
  EXPECT_FALSE(Login(other_type).found);
}

TEST(UserCredentials, LaterItemWins) {
  BlockBuilder basic_last;
  basic_last.Nested(14).Word(16, 1).Nested(19).Text(30, "krx").Text(31, "p1").Text(26, "p2").Text(25, "basic");
  EXPECT_EQ(Login(basic_last).Text(), "basic p2 ?");
  BlockBuilder krx_last;
  krx_last.Nested(14).Word(16, 1).Nested(19).Text(25, "basic").Text(26, "p2").Text(30, "krx").Text(31, "p1");
  EXPECT_EQ(Login(krx_last).Text(), "krx p1 ?");
}

TEST(UserCredentials, EmptyValueClearsItsTarget) {
  BlockBuilder block;
  block.Nested(14).Word(16, 1).Nested(19).Text(25, "").Text(26, "").Text(29, "");
  const Login login(block);
  EXPECT_FALSE(login.found);
  EXPECT_EQ(login.Text(), "  ");
}

TEST(UserCredentials, OtherIndicesNullValuesAndNullEntriesAreSkipped) {
  BlockBuilder block;
  auto& list = block.Nested(14).Word(16, 1).Nested(19);
  list.NullEntry().Raw(25, 0, nullptr).Text(27, "x").Text(0, "y").Raw(99, 0, "z").Text(29, "example");
  const Login login(block);
  EXPECT_TRUE(login.found);  // the user id of the caller counts
  EXPECT_EQ(login.Text(), "? ? example");
}

TEST(UserCredentials, EmptyListReturnsWhetherTheCallerHasAUserId) {
  BlockBuilder block;
  auto& nested = block.Nested(14).Word(16, 1);
  auto& list = nested.Nested(19);
  list.Text(30, "admin");
  const wcs_gendata* raw = block.Block();
  for (const int count : {0, -1}) {
    list.Block()->element_count = count;
    std::string user_id;
    std::string text;
    EXPECT_FALSE(KrxRequestParams(raw).GetUserCredentials(user_id, text, text)) << count;
    EXPECT_TRUE(Login(raw).found) << count;
    EXPECT_EQ(Login(raw).Text(), "? ? ?") << count;
  }
}

TEST(UserCredentials, Element19WithoutAListCountsAsAnEmptyList) {
  BlockBuilder block;
  block.Nested(14).Word(16, 1).Raw(19, 0, nullptr);
  EXPECT_TRUE(Login(block).found);
  BlockBuilder null_array;
  auto& list = null_array.Nested(14).Word(16, 1).Nested(19);
  list.Text(30, "admin");
  const wcs_gendata* raw = null_array.Block();
  list.Block()->elements = nullptr;
  EXPECT_EQ(Login(raw).Text(), "? ? ?");
}

TEST(UserCredentials, LoopingChainEndsTheSearch) {
  for (int length = 1; length <= 9; ++length) {
    for (int back_to = 0; back_to < length; ++back_to) {
      BlockBuilder block;
      std::vector<qx::test::NestedBuilder*> chain{&block.Nested(14)};
      while (static_cast<int>(chain.size()) < length) chain.push_back(&chain.back()->Next());
      const wcs_gendata* raw = block.Block();
      chain.back()->Block()->next_block = chain[static_cast<std::size_t>(back_to)]->Block();
      EXPECT_FALSE(Login(raw).found) << length << " back to " << back_to;
    }
  }
}

TEST(UserCredentials, LastBlockOfALoopingChainIsRead) {
  for (int length = 1; length <= 20; ++length) {
    BlockBuilder block;
    std::vector<qx::test::NestedBuilder*> chain{&block.Nested(14)};
    while (static_cast<int>(chain.size()) < length) chain.push_back(&chain.back()->Next());
    chain.back()->Word(16, 1).Nested(19).Text(30, "admin");
    const wcs_gendata* raw = block.Block();
    chain.back()->Block()->next_block = chain.front()->Block();
    EXPECT_EQ(Login(raw).user_id, "admin") << length;
  }
}

TEST(UserCredentials, EachItemIsTracedAndPasswordsAreMasked) {
  BlockBuilder block;
  auto& list = block.Nested(14).Word(16, 1).Nested(19);
  list.Text(25, "basic").Text(26, "secret1").Text(29, "example").Text(30, "krx").Text(31, "secret2").Text(99, "x");
  const TraceCapture trace(4);
  EXPECT_TRUE(Login(block).found);
  EXPECT_EQ(trace.Text(),
            "KrxReqestParams     : User id [HTTP BASIC AUTH] available: \"basic\"\n"
            "KrxReqestParams     : Password [HTTP BASIC AUTH] available: \"******\"\n"
            "KrxReqestParams     : Domain name [KRX] available: \"example\"\n"
            "KrxReqestParams     : User id [KRX] available: \"krx\"\n"
            "KrxReqestParams     : Password [KRX] available: \"******\"\n");
}

TEST(UserCredentials, NothingIsTracedBelowLevelFour) {
  BlockBuilder block;
  block.Nested(14).Word(16, 1).Nested(19).Text(25, "basic").Text(26, "secret1");
  const TraceCapture trace(3);
  EXPECT_TRUE(Login(block).found);
  EXPECT_EQ(trace.Text(), "");
}

}  // namespace
