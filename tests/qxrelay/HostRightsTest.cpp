// Tests the file of the servers' users.
#include "tools/qxrelay/cli/HostRights.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qx::relay::Rights;
using qx::relay::RightsOf;
using qx::relay::Role;
using qx::relay::StreamSettings;
using qx::relay::UsersFile;

using Words = std::vector<std::string>;

TEST(RelayHostRights, EachRoleHasWhatItNeeds) {
  const StreamSettings stream;
  const Rights host = RightsOf(Role::kHost, stream, "a.b");
  EXPECT_EQ(host.publish, (Words{"qx.report.a%2Eb.*", "qx.names.a%2Eb.*", "qx.about.a%2Eb",
                                 "$JS.API.DIRECT.GET.QX.qx.report.a%2Eb.*", "$JS.API.DIRECT.GET.QX.qx.about.a%2Eb"}));
  EXPECT_EQ(host.subscribe, Words{"_INBOX_a%2Eb.>"});
  const Rights collector = RightsOf(Role::kCollector, stream, "c1");
  EXPECT_EQ(collector.publish,
            (Words{"$JS.API.STREAM.NAMES", "$JS.API.STREAM.INFO.QX", "$JS.API.STREAM.MSG.GET.QX",
                   "$JS.API.DIRECT.GET.QX", "$JS.API.CONSUMER.INFO.QX.c1", "$JS.API.CONSUMER.DURABLE.CREATE.QX.c1",
                   "$JS.API.CONSUMER.MSG.NEXT.QX.c1", "$JS.ACK.QX.c1.>"}));
  EXPECT_EQ(RightsOf(Role::kOperator, stream, "op").publish, Words{"$JS.API.>"});
}

TEST(RelayHostRights, DomainIsInTheSubjectsOfTheInterface) {
  StreamSettings stream;
  stream.domain = "hub";
  EXPECT_EQ(RightsOf(Role::kHost, stream, "h").publish.back(), "$JS.hub.API.DIRECT.GET.QX.qx.about.h");
  EXPECT_EQ(RightsOf(Role::kCollector, stream, "c1").publish[5], "$JS.hub.API.CONSUMER.DURABLE.CREATE.QX.c1");
  EXPECT_EQ(RightsOf(Role::kOperator, stream, "op").publish, Words{"$JS.hub.API.>"});
}

TEST(RelayHostRights, UsersAreAddedBeforeTheEndOfTheListAndRemoved) {
  UsersFile users("");
  const std::string empty = users.Text();
  users.Add(Role::kHost, {}, "h1", "$2a$04$x");
  users.Add(Role::kCollector, {}, "c1", "$2a$04$y");
  EXPECT_EQ(users.RoleOfUser("h1"), Role::kHost);
  EXPECT_EQ(users.RoleOfUser("c1"), Role::kCollector);
  EXPECT_EQ(users.RoleOfUser("h"), std::nullopt);
  EXPECT_EQ(users.PasswordOf("c1"), "$2a$04$y");
  EXPECT_TRUE(users.Text().ends_with(" # qxrelay collector\n]\n"));
  users.Remove("h1");
  EXPECT_FALSE(users.Has("h1"));
  users.Remove("c1");
  EXPECT_EQ(users.Text(), empty);
}

TEST(RelayHostRights, LinesOfOthersStayAsTheyAre) {
  const std::string text = "# mine\nusers = [\n  {user: \"other\", password: \"p\"}\n]\n# after\n";
  UsersFile users(text);
  EXPECT_TRUE(users.Has("other"));
  EXPECT_EQ(users.RoleOfUser("other"), std::nullopt) << "it is not ours to change";
  users.Remove("other");
  EXPECT_EQ(users.Text(), text);
  users.Add(Role::kHost, {}, "h1", "p");
  users.Remove("h1");
  EXPECT_EQ(users.Text(), text);
}

}  // namespace
