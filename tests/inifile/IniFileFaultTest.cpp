// Tests files that cannot be opened or written: the result is false, and the file is unchanged unless a write fails in
// the middle.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "inifile/IniFile.h"
#include "tests/inifile/MemoryFile.h"
#include "tests/support/Attacker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace {

using qx::test::FailingCall;
using qx::test::FileCall;

bool Set(const std::string& path, const char* section, const char* key, const char* value) {
  return CIniFile::WritePrivateProfileString(section, key, value, path.c_str());
}

// Runs `action` in a child in which no file may grow over `limit` bytes, and returns its result.
template <typename Action>
bool WithFileSizeLimit(std::size_t limit, Action action) {
  const int status = qx::test::StatusOfChild([&] { return !qx::test::LimitFileSize(limit) ? 2 : action() ? 1 : 0; });
  EXPECT_LE(status, 1);
  return status == 1;
}

class IniFileFault : public testing::Test {
 protected:
  qx::test::TempDir dir_;
  const std::string path_ = dir_.File("profile.ini");
};

// The limit takes each value from 0 to the size that the edit needs, so the write fails at each byte.
TEST_F(IniFileFault, EditOnAFullDiskIsFalseAndLeavesTheFileUnchanged) {
  const std::string before = "[S]\nx=0\nk=1\nb=2\n";
  const std::string after = "[S]\nx=0\nk=longer\nb=2\n";
  for (std::size_t limit = before.size(); limit <= after.size(); ++limit) {
    qx::test::WriteFile(path_, before);
    const bool result = WithFileSizeLimit(limit, [&] { return Set(path_, "S", "k", "longer"); });
    EXPECT_EQ(result, limit == after.size()) << limit;
    EXPECT_EQ(qx::test::ReadFile(path_), result ? after : before) << limit;
  }
}

TEST_F(IniFileFault, InsertionOnAFullDiskIsFalseAndLeavesTheFileUnchanged) {
  const std::string before = "[S]\nx=0\n\n[T]\n";
  for (std::size_t limit = before.size(); limit < before.size() + 4; ++limit) {
    qx::test::WriteFile(path_, before);
    EXPECT_FALSE(WithFileSizeLimit(limit, [&] { return Set(path_, "S", "k", "1"); })) << limit;
    EXPECT_EQ(qx::test::ReadFile(path_), before) << limit;
  }
}

TEST_F(IniFileFault, AppendOnAFullDiskIsFalseAndLeavesNoPartialLine) {
  const std::string before = "[S]\nx=0\n";
  for (std::size_t limit = before.size(); limit < before.size() + 4; ++limit) {
    qx::test::WriteFile(path_, before);
    EXPECT_FALSE(WithFileSizeLimit(limit, [&] { return Set(path_, "S", "k", "1"); })) << limit;
    EXPECT_EQ(qx::test::ReadFile(path_), before) << limit;
  }
}

TEST_F(IniFileFault, NewFileOnAFullDiskIsFalseAndEmpty) {
  EXPECT_FALSE(WithFileSizeLimit(3, [&] { return Set(path_, "S", "k", "1"); }));
  EXPECT_EQ(qx::test::ReadFile(path_), "");
}

TEST_F(IniFileFault, ShrinkingEditNeedsNoSpace) {
  qx::test::WriteFile(path_, "[S]\nx=0\nk=long\n[T]\n");
  EXPECT_TRUE(WithFileSizeLimit(19, [&] { return Set(path_, "S", "k", "1"); }));
  EXPECT_EQ(qx::test::ReadFile(path_), "[S]\nx=0\nk=1\n[T]\n");
}

// The limit is below the size of the file, so the write of the first byte after the limit fails: the file is partly
// written, and the result is false.
TEST_F(IniFileFault, WriteThatFailsInTheMiddleIsFalse) {
  const std::string tail(20000, 't');
  qx::test::WriteFile(path_, "[S]\nx=0\nk=long\n" + tail);
  EXPECT_FALSE(WithFileSizeLimit(9000, [&] { return Set(path_, "S", "k", "1"); }));
}

TEST_F(IniFileFault, UnreadableFileIsNotTreatedAsEmpty) {
  const std::string before = "[S]\nx=0\nk=1\n";
  qx::test::WriteFile(path_, before);
  {
    const FailingCall fault({.call = FileCall::kReadAt, .times = qx::test::kAlways, .error = EIO});
    EXPECT_FALSE(Set(path_, "S", "k", "2"));
    EXPECT_TRUE(fault.HasFailed());
  }
  EXPECT_EQ(qx::test::ReadFile(path_), before);
}

TEST_F(IniFileFault, DirectoryAndPipeAreNeverWritten) {
  EXPECT_FALSE(Set(dir_.Path(), "S", "k", "1"));
  EXPECT_FALSE(Set(dir_.Path(), "S", "k", nullptr));
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_FALSE(Set(path_, "S", "k", "1"));
  EXPECT_FALSE(Set(path_, "S", nullptr, nullptr));
}

TEST_F(IniFileFault, FileInAMissingDirectoryIsNotCreated) {
  EXPECT_FALSE(Set(dir_.File("missing/f"), "S", "k", "1"));
  EXPECT_TRUE(Set(dir_.File("missing/f"), "S", "k", nullptr));
  qx::test::WriteFile(path_, "");
  EXPECT_FALSE(Set(path_ + "/f", "S", "k", "1"));
  EXPECT_TRUE(Set(path_ + "/f", "S", "k", nullptr));
}

TEST_F(IniFileFault, SymbolicLinkLoopIsFalse) {
  ASSERT_EQ(symlink(path_.c_str(), path_.c_str()), 0);
  EXPECT_FALSE(Set(path_, "S", "k", "1"));
  EXPECT_FALSE(Set(path_, "S", "k", nullptr));
}

TEST_F(IniFileFault, ReadOnlyFileIsNotWritten) {
  const std::string before = "[S]\nx=0\nk=1\n";
  qx::test::WriteFile(path_, before);
  ASSERT_EQ(chmod(path_.c_str(), 0444), 0);
  ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
  EXPECT_TRUE(qx::test::AsOrdinaryUser([&] { return !Set(path_, "S", "k", "2") && !Set(path_, "S", "k", nullptr); }));
  EXPECT_EQ(qx::test::ReadFile(path_), before);
}

TEST_F(IniFileFault, UnreadableFileDoesNotOpen) {
  qx::test::WriteFile(path_, "[S]\nk=1\n");
  ASSERT_EQ(chmod(path_.c_str(), 0), 0);
  ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
  EXPECT_FALSE(qx::test::AsOrdinaryUser([&] { return CIniFile().Open(path_.c_str(), true); }));
  EXPECT_FALSE(
      qx::test::AsOrdinaryUser([&] { return CIniFile::WritePrivateProfileString("S", "k", "2", path_.c_str()); }));
}

TEST_F(IniFileFault, NoDescriptorStaysOpen) {
  const auto open_descriptors = [] {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count;
  };
  const int before = open_descriptors();
  CIniFile ini;
  EXPECT_TRUE(ini.Open(path_.c_str(), false));
  EXPECT_TRUE(ini.SetString("S", "k", "1"));
  EXPECT_TRUE(ini.SetString("S", "k", "2"));
  EXPECT_TRUE(ini.SetString("T", "k", "2"));
  EXPECT_FALSE(ini.DeleteKey("S", "x"));
  EXPECT_TRUE(ini.DeleteSection("S"));
  EXPECT_STREQ(ini.GetEnum("T"), "k");
  EXPECT_FALSE(ini.Open(dir_.Path().c_str(), true));
  EXPECT_FALSE(Set(dir_.Path(), "S", "k", "1"));
  EXPECT_EQ(open_descriptors(), before);
}

// Offsets of an edit have 32 bits. At a larger offset an edit must be refused, and never be made elsewhere. The file is
// in memory, so that its hole of four gibibytes is not in the page cache.
#ifdef __OPTIMIZE__
TEST_F(IniFileFault, OffsetAfterFourGibibytesIsNotEdited) {
  const qx::test::MemoryFile file;
  file.Write("[S]\nx=0\n");
  const off_t size = (off_t{1} << 32) + 8;
  ASSERT_EQ(truncate(file.Path().c_str(), size), 0);
  ASSERT_TRUE(Set(file.Path(), "T", "k", "1"));
  ASSERT_FALSE(Set(file.Path(), "T", "k", "2"));
  EXPECT_EQ(std::filesystem::file_size(file.Path()), static_cast<std::uintmax_t>(size) + 10);
}
#endif

}  // namespace
