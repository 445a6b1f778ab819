// Tests tokens, cookies, the key file, and which requests count as requests of our own pages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/Support.h"
#include "tools/qxview/session/Key.h"
#include "tools/qxview/session/Origin.h"
#include "tools/qxview/session/Sessions.h"

namespace qx::view {

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t kNow = 1'795'000'000;

KeyBytes KeyOf(unsigned char byte) {
  KeyBytes key;
  key.fill(byte);
  return key;
}

class ViewKey : public testing::Test {
 protected:
  [[nodiscard]] std::string Directory() const { return dir_.File("state/qxview"); }
  [[nodiscard]] std::string Key() const { return Directory() + "/key"; }

  test::TempDir dir_;
};

}  // namespace

TEST_F(ViewKey, IsMadeOnceWithModeSixHundred) {
  const LoadedKey made = LoadKey(Directory());
  EXPECT_THAT(made.problem, IsEmpty());
  struct stat status = {};
  ASSERT_EQ(stat(Key().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(LoadKey(Directory()).bytes, made.bytes);
  EXPECT_NE(LoadKey(dir_.File("other")).bytes, made.bytes);
}

TEST_F(ViewKey, FileThatOthersMayReadIsRefused) {
  (void)LoadKey(Directory());
  ASSERT_EQ(chmod(Key().c_str(), 0640), 0);
  EXPECT_THAT(LoadKey(Directory()).problem, HasSubstr("other users may read or write"));
}

TEST_F(ViewKey, ShortFileAndLinkAreRefused) {
  (void)LoadKey(Directory());
  ASSERT_EQ(truncate(Key().c_str(), 31), 0);
  EXPECT_THAT(LoadKey(Directory()).problem, HasSubstr("is no key"));
  ASSERT_EQ(rename(Key().c_str(), (Key() + "2").c_str()), 0);
  ASSERT_EQ(symlink("key2", Key().c_str()), 0);
  EXPECT_THAT(LoadKey(Directory()).problem, HasSubstr("cannot read"));
}

TEST(ViewMac, IsHmacSha256) {
  // RFC 4231, test case 2 has a key of 4 bytes, which the function pads like 32 bytes with zeros.
  KeyBytes key = {'J', 'e', 'f', 'e'};
  EXPECT_EQ(MacOf(key, "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(ViewToken, IsValidOnceAndForFiveMinutes) {
  Sessions sessions(KeyOf(1));
  const std::string token = sessions.NewToken(100);
  EXPECT_EQ(token.size(), 64U);
  EXPECT_FALSE(sessions.TakeToken("", 100));
  EXPECT_FALSE(sessions.TakeToken(token + "0", 100));
  EXPECT_TRUE(sessions.TakeToken(token, 100 + Sessions::kTokenS));
  EXPECT_FALSE(sessions.TakeToken(token, 101)) << "used";
  const std::string old = sessions.NewToken(100);
  EXPECT_FALSE(sessions.TakeToken(old, 101 + Sessions::kTokenS)) << "old";
  const std::string replaced = sessions.NewToken(100);
  (void)sessions.NewToken(101);
  EXPECT_FALSE(sessions.TakeToken(replaced, 101)) << "replaced";
  EXPECT_FALSE(Sessions(KeyOf(1)).TakeToken("", 0)) << "no token was made yet";
}

TEST(ViewCookie, IsValidWithItsNameItsKeyAndItsTime) {
  const Sessions sessions(KeyOf(1));
  const std::string cookie = "qxview-80=" + sessions.NewCookie("qxview-80", kNow);
  EXPECT_TRUE(sessions.HasSession(cookie, "qxview-80", kNow));
  EXPECT_TRUE(sessions.HasSession("a=b; " + cookie + "; c", "qxview-80", kNow + Sessions::kSessionS - 1));
  EXPECT_TRUE(Sessions(KeyOf(1)).HasSession(cookie, "qxview-80", kNow)) << "another run with the same key";
  EXPECT_FALSE(sessions.HasSession(cookie, "qxview-80", kNow + Sessions::kSessionS)) << "old";
  EXPECT_FALSE(sessions.HasSession(cookie, "qxview-81", kNow)) << "another port";
  EXPECT_FALSE(sessions.HasSession("qxview-81=" + cookie.substr(10), "qxview-81", kNow)) << "renamed";
  EXPECT_FALSE(Sessions(KeyOf(2)).HasSession(cookie, "qxview-80", kNow)) << "another key";
}

TEST(ViewCookie, EveryChangedByteMakesItInvalid) {
  const Sessions sessions(KeyOf(1));
  const std::string cookie = "qxview-80=" + sessions.NewCookie("qxview-80", kNow);
  for (std::size_t i = 0; i < cookie.size(); ++i) {
    std::string changed = cookie;
    changed[i] = changed[i] == '1' ? '2' : '1';
    EXPECT_FALSE(sessions.HasSession(changed, "qxview-80", kNow)) << changed;
    EXPECT_FALSE(sessions.HasSession(cookie.substr(0, i), "qxview-80", kNow)) << i;
  }
}

namespace {

struct OriginCase {
  const char* host;
  const char* origin;
  const char* site;
  OriginVerdict data;
  OriginVerdict page;
};

constexpr OriginVerdict kOurs = OriginVerdict::kOurs;
constexpr OriginVerdict kHost = OriginVerdict::kForeignHost;
constexpr OriginVerdict kOrigin = OriginVerdict::kForeignOrigin;

constexpr OriginCase kOriginCases[] = {
    {"127.0.0.1:8070", "", "", kOurs, kOurs},
    {"localhost:9000", "http://localhost:9000", "same-origin", kOurs, kOurs},
    {"[::1]", "", "none", kOurs, kOurs},
    {"reports.example.org", "https://reports.example.org", "same-origin", kOurs, kOurs},
    {"reports.example.org:8443", "", "", kHost, kHost},
    {"", "", "", kHost, kHost},
    {"evil.example", "", "", kHost, kHost},
    {"127.0.0.1.evil.example", "", "", kHost, kHost},
    {"localhost:evil", "", "", kHost, kHost},
    {"localhost:123456", "", "", kHost, kHost},
    {"127.0.0.2:8070", "", "", kHost, kHost},
    {"localhost:8070", "http://evil.example", "cross-site", kOrigin, kOrigin},
    {"localhost:8070", "http://localhost:8071", "same-site", kOrigin, kOrigin},
    {"localhost:8070", "null", "", kOrigin, kOrigin},
    {"localhost:8070", "", "cross-site", kOrigin, kOurs},
    {"localhost:8070", "", "same-site", kOrigin, kOurs},
};

}  // namespace

TEST(ViewOrigin, OnlyOurOwnPageMayAskForData) {
  const OriginRules rules({"reports.example.org"});
  for (const OriginCase& each : kOriginCases) {
    HttpRequest request;
    request.host = each.host;
    request.origin = each.origin;
    request.fetch_site = each.site;
    const std::string name = request.host + " " + request.origin + " " + request.fetch_site;
    EXPECT_EQ(rules.Check(request, false), each.data) << name;
    EXPECT_EQ(rules.Check(request, true), each.page) << name;
  }
}

TEST(ViewOrigin, PortOfTheHostNamesTheCookie) {
  EXPECT_EQ(PortOfHost("localhost:9000"), "9000");
  EXPECT_EQ(PortOfHost("[::1]:81"), "81");
  EXPECT_EQ(PortOfHost("[::1]"), "80");
  EXPECT_EQ(PortOfHost("reports.example.org"), "80");
}

}  // namespace qx::view
