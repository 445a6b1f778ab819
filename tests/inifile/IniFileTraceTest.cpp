// Tests every trace text, in its order and at its level.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <string>
#include <vector>

#include "inifile/IniFile.h"
#include "tests/support/Support.h"

namespace {

using Entries = std::vector<std::string>;

class IniFileTrace : public testing::Test {
 protected:
  // The entries that `action` traces at `level`.
  template <typename Action>
  Entries Traced(int level, Action action) {
    const qx::test::TraceCapture capture(level);
    action();
    return capture.Entries();
  }

  void ExpectOnlyAtLevel(int level, const Entries& entries, auto action) {
    EXPECT_EQ(Traced(level, action), entries);
    EXPECT_EQ(Traced(level - 1, action), Entries{});
  }

  auto Write(const char* section, const char* key, const char* value) {
    return [=, this] { (void)CIniFile::WritePrivateProfileString(section, key, value, path_.c_str()); };
  }

  auto Read() {
    return [this] {
      char buf[16];
      (void)CIniFile::GetPrivateProfileString("S", "k", "d", buf, sizeof buf, path_.c_str());
    };
  }

  std::string Called(const std::string& arguments) const {
    return "WritePrivateProfileString(" + arguments + ", " + path_ + ")";
  }

  qx::test::TempDir dir_;
  const std::string path_ = dir_.File("profile.ini");
};

TEST_F(IniFileTrace, UnreadableFileIsTracedAtLevel4) {
  ExpectOnlyAtLevel(4, {"GetPrivateProfileString: Cannot open " + path_}, Read());
}

TEST_F(IniFileTrace, ReadingTracesNothing) {
  qx::test::WriteFile(path_, "[S]\nk=1\n");
  EXPECT_EQ(Traced(6, Read()), Entries{});
}

TEST_F(IniFileTrace, MissingSectionIsTracedAtLevel4) {
  ExpectOnlyAtLevel(4, {"WritePrivateProfileString: ## WARNING: invalid pointer to AppName"}, Write(nullptr, "k", "v"));
}

TEST_F(IniFileTrace, MissingPathIsTracedAtLevel4) {
  ExpectOnlyAtLevel(4, {"WritePrivateProfileString: ## WARNING: invalid pointer to FileName"},
                    [] { (void)CIniFile::WritePrivateProfileString("S", "k", "v", nullptr); });
}

TEST_F(IniFileTrace, AppendTracesItsCallOnly) { ExpectOnlyAtLevel(4, {Called("S, k, v")}, Write("S", "k", "v")); }

TEST_F(IniFileTrace, EditInPlaceTracesItsResult) {
  qx::test::WriteFile(path_, "[S]\n\nk=1\n");
  ExpectOnlyAtLevel(4, {Called("S, k, v"), "WritePrivateProfileString rc=0x0001"}, Write("S", "k", "v"));
}

TEST_F(IniFileTrace, EditThatFailsTracesItsResultToo) {
  const auto write = [this] {
    qx::test::WriteFile(path_, "[S]\nx=0\nk=long\n" + std::string(20000, 't'));
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit below_the_files_size = {9000, before.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &below_the_files_size);
    EXPECT_FALSE(CIniFile::WritePrivateProfileString("S", "k", "1", path_.c_str()));
    setrlimit(RLIMIT_FSIZE, &before);
  };
  ExpectOnlyAtLevel(4, {Called("S, k, 1"), "WritePrivateProfileString rc=0x0000"}, write);
}

TEST_F(IniFileTrace, MissingKeyAndValueAreShownAsNil) {
  qx::test::WriteFile(path_, "[S]\nk=1\n");
  EXPECT_EQ(Traced(4, Write("S", "k", nullptr)),
            (Entries{Called("S, k, <nil>"), "WritePrivateProfileString rc=0x0001"}));
  EXPECT_EQ(Traced(4, Write("S", nullptr, nullptr)),
            (Entries{Called("S, <nil>, <nil>"), "WritePrivateProfileString rc=0x0001"}));
}

TEST_F(IniFileTrace, DeletionThatFindsNothingTracesNoResult) {
  qx::test::WriteFile(path_, "[S]\nk=1\n[T]\n");
  EXPECT_EQ(Traced(6, Write("S", "x", nullptr)), Entries{Called("S, x, <nil>")});
  EXPECT_EQ(Traced(6, Write("T", "x", nullptr)), Entries{Called("T, x, <nil>")});
  EXPECT_EQ(Traced(6, Write("U", nullptr, nullptr)), Entries{Called("U, <nil>, <nil>")});
}

TEST_F(IniFileTrace, FileThatCannotBeCreatedIsTracedAtLevel1) {
  const std::string path = dir_.File("missing/profile.ini");
  const auto write = [&] { (void)CIniFile::WritePrivateProfileString("S", "k", "v", path.c_str()); };
  ExpectOnlyAtLevel(1, {"WritePrivateProfileString: ## WARNING: append open error: " + path}, write);
}

TEST_F(IniFileTrace, FileThatIsNotRegularIsTracedAtLevel1) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const Entries warning = {"WritePrivateProfileString: ## WARNING: append open error: " + path_};
  ExpectOnlyAtLevel(1, warning, Write("S", "k", "v"));
  ExpectOnlyAtLevel(1, warning, Write("S", "k", nullptr));
}

TEST_F(IniFileTrace, FlushOnlyWarnsAndOnlyWhileOpen) {
  CIniFile ini;
  EXPECT_EQ(Traced(6, [&] { ini.Flush(); }), Entries{});
  ini.Open(path_.c_str(), false);
  ExpectOnlyAtLevel(4, {"WritePrivateProfileString: ## WARNING: invalid pointer to AppName"}, [&] { ini.Flush(); });
  EXPECT_FALSE(qx::test::Exists(path_));
}

}  // namespace
