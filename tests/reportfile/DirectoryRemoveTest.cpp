// Tests removals of directory trees: which files are removed, which stay, and every line of the trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "reportfile/Directory.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Attacker.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class DirectoryRemove : public testing::Test {
 protected:
  bool Remove(bool parent = true) { return CDirectory::RemoveDir(top_.c_str(), parent); }

  std::vector<std::string> TraceOfRemoval(int level, bool expected, bool parent = true) {
    const TraceCapture trace(level);
    EXPECT_EQ(Remove(parent), expected);
    return Shortened(trace.Entries(), dir_.Path());
  }

  TempDir dir_;
  std::string top_ = dir_.File("top");
};

TEST_F(DirectoryRemove, NullAndEmptyPathsAreRefused) {
  const TraceCapture trace(6);
  EXPECT_FALSE(CDirectory::RemoveDir("", true));
  errno = 0;
  EXPECT_FALSE(CDirectory::RemoveDir(nullptr, true));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(trace.Entries(), ElementsAre("CDirectory          : Remove directory \"\"",
                                           "CDirectory          : Remove directory \"(null)\""));
}

TEST_F(DirectoryRemove, WholeTreeIsTracedInAlphabeticalOrder) {
  MakeTree(top_, {{"b.dat", "1"}, {"a.dat", "2"}, {"sub/c", "3"}, {"sub/deep/", ""}, {"z", "4"}});
  EXPECT_THAT(TraceOfRemoval(6, true),
              ElementsAre("CDirectory          : Remove directory \"T/top\"",                      //
                          "CDirectory          : Found file: \"T/top/a.dat\"",                     //
                          "CDirectory          : Remove file \"T/top/a.dat\" OK!",                 //
                          "CDirectory          : Found file: \"T/top/b.dat\"",                     //
                          "CDirectory          : Remove file \"T/top/b.dat\" OK!",                 //
                          "CDirectory          : Found dir: \"T/top/sub\"",                        //
                          "CDirectory          : Remove directory \"T/top/sub\"",                  //
                          "CDirectory          : Found file: \"T/top/sub/c\"",                     //
                          "CDirectory          : Remove file \"T/top/sub/c\" OK!",                 //
                          "CDirectory          : Found dir: \"T/top/sub/deep\"",                   //
                          "CDirectory          : Remove directory \"T/top/sub/deep\"",             //
                          "CDirectory          : Remove directory parent \"T/top/sub/deep\"",      //
                          "CDirectory          : Remove directory parent \"T/top/sub/deep\" OK!",  //
                          "CDirectory          : Remove directory \"T/top/sub/deep\" OK!",         //
                          "CDirectory          : Remove directory parent \"T/top/sub\"",           //
                          "CDirectory          : Remove directory parent \"T/top/sub\" OK!",       //
                          "CDirectory          : Remove directory \"T/top/sub\" OK!",              //
                          "CDirectory          : Found file: \"T/top/z\"",                         //
                          "CDirectory          : Remove file \"T/top/z\" OK!",                     //
                          "CDirectory          : Remove directory parent \"T/top\"",               //
                          "CDirectory          : Remove directory parent \"T/top\" OK!"));
  EXPECT_FALSE(Exists(top_));
}

TEST_F(DirectoryRemove, LinesHaveTheirLevels) {
  MakeTree(top_, {{"a", "1"}, {"sub/", ""}});
  EXPECT_THAT(TraceOfRemoval(2, true), ElementsAre("CDirectory          : Remove directory \"T/top\"",
                                                   "CDirectory          : Found file: \"T/top/a\"",
                                                   "CDirectory          : Found dir: \"T/top/sub\"",
                                                   "CDirectory          : Remove directory \"T/top/sub\""));
  MakeTree(top_, {{"a", "1"}, {"sub/", ""}});
  EXPECT_THAT(TraceOfRemoval(1, true), IsEmpty());
}

TEST_F(DirectoryRemove, WithoutItsParentADirectoryIsLeftEmpty) {
  MakeTree(top_, {{"a", "1"}, {"sub/b", "2"}});
  EXPECT_THAT(TraceOfRemoval(2, true, false), ElementsAre("CDirectory          : Remove directory \"T/top\"",
                                                          "CDirectory          : Found file: \"T/top/a\"",
                                                          "CDirectory          : Found dir: \"T/top/sub\"",
                                                          "CDirectory          : Remove directory \"T/top/sub\"",
                                                          "CDirectory          : Found file: \"T/top/sub/b\""));
  EXPECT_TRUE(Exists(top_));
  EXPECT_THAT(ContentsOf(top_), IsEmpty());
}

TEST_F(DirectoryRemove, QuirkHiddenFileStaysWithItsDirectory) {
  MakeTree(top_, {{".hidden", "1"}, {"a", "2"}});
  const TraceCapture trace(3);
  errno = 0;
  EXPECT_FALSE(Remove());
  EXPECT_EQ(errno, ENOTEMPTY);
  // The message about the parent directory ends with a line feed; the log does not add a second one.
  EXPECT_EQ(Shortened({trace.Text()}, dir_.Path()).front(),
            "CDirectory          : Remove directory \"T/top\"\n"
            "CDirectory          : Found file: \"T/top/a\"\n"
            "CDirectory          : Remove file \"T/top/a\" OK!\n"
            "CDirectory          : Remove directory parent \"T/top\"\n"
            "CDirectory          : ERROR cannot remove parent directory \"T/top\": Directory not empty\n");
  EXPECT_THAT(ContentsOf(top_), UnorderedElementsAre(Pair(".hidden", "1")));
}

TEST_F(DirectoryRemove, QuirkHiddenEntriesStayIfTheDirectoryStays) {
  MakeTree(top_, {{".hidden", "1"}, {".dir/a", "2"}, {"a", "3"}});
  EXPECT_TRUE(Remove(false));
  EXPECT_THAT(ContentsOf(top_), UnorderedElementsAre(Pair(".hidden", "1"), Pair(".dir/", ""), Pair(".dir/a", "2")));
}

TEST_F(DirectoryRemove, FailureInASubdirectoryIsTracedOnEveryLevel) {
  MakeTree(top_, {{"a", "1"}, {"s/t/.hidden", "2"}, {"z", "3"}});
  EXPECT_THAT(
      TraceOfRemoval(1, false),
      ElementsAre("CDirectory          : ERROR cannot remove parent directory \"T/top/s/t\": Directory not empty",
                  "CDirectory          : ERROR cannot remove directory \"T/top/s/t\": Directory not empty",
                  "CDirectory          : ERROR cannot remove directory \"T/top/s\": Directory not empty"));
  EXPECT_THAT(ContentsOf(top_),
              UnorderedElementsAre(Pair("s/", ""), Pair("s/t/", ""), Pair("s/t/.hidden", "2"), Pair("z", "3")));
}

TEST_F(DirectoryRemove, QuirkFailedScanShowsAnEmptyPath) {
  EXPECT_THAT(
      TraceOfRemoval(6, false),
      ElementsAre("CDirectory          : Remove directory \"T/top\"",
                  "CDirectory          : scandir for directory \"\" failed; ## ERROR: No such file or directory"));
  WriteFile(top_, "a file");
  EXPECT_THAT(TraceOfRemoval(2, false), ElementsAre("CDirectory          : Remove directory \"T/top\""));
  EXPECT_THAT(TraceOfRemoval(3, false),
              ElementsAre("CDirectory          : Remove directory \"T/top\"",
                          "CDirectory          : scandir for directory \"\" failed; ## ERROR: Not a directory"));
  EXPECT_EQ(ReadFile(top_), "a file");
}

TEST_F(DirectoryRemove, UnreadableDirectoryStaysAndEndsTheRemoval) {
  MakeTree(top_, {{"s/a", "1"}, {"z", "2"}});
  chmod((top_ + "/s").c_str(), 0);
  const auto remove = [this] {
    const std::vector<std::string> lines = TraceOfRemoval(3, false);
    return lines == std::vector<std::string>(
                        {"CDirectory          : Remove directory \"T/top\"",    //
                         "CDirectory          : Found dir: \"T/top/s\"",        //
                         "CDirectory          : Remove directory \"T/top/s\"",  //
                         "CDirectory          : scandir for directory \"\" failed; ## ERROR: Permission denied",
                         "CDirectory          : ERROR cannot remove directory \"T/top/s\": Permission denied"});
  };
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), remove));
  chmod((top_ + "/s").c_str(), 0700);
  EXPECT_TRUE(Exists(top_ + "/z"));
}

TEST_F(DirectoryRemove, FileThatMayNotBeRemovedEndsTheRemoval) {
  MakeTree(top_, {{"a", "1"}, {"b", "2"}});
  chmod(top_.c_str(), 0500);
  const auto remove = [this] {
    return TraceOfRemoval(3, false) ==
           std::vector<std::string>({"CDirectory          : Remove directory \"T/top\"",
                                     "CDirectory          : Found file: \"T/top/a\"",
                                     "CDirectory          : ERROR cannot remove file \"T/top/a\": Permission denied"});
  };
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), remove));
  chmod(top_.c_str(), 0700);
  EXPECT_THAT(ContentsOf(top_), UnorderedElementsAre(Pair("a", "1"), Pair("b", "2")));
  EXPECT_EQ(ModeOf(top_ + "/a"), 0777U);
}

TEST_F(DirectoryRemove, FailedChangeOfModeIsTracedAndDoesNotEndTheRemoval) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another owner";
  MakeTree(top_, {{"a", "1"}});
  ASSERT_EQ(chown((top_ + "/a").c_str(), 1234, 1234), 0);
  const auto remove = [this] {
    return TraceOfRemoval(1, true) ==
           std::vector<std::string>(
               {"CDirectory          : ERROR cannot change mode of file \"T/top/a\": Operation not permitted"});
  };
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), remove));
  EXPECT_FALSE(Exists(top_));
}

TEST_F(DirectoryRemove, QuirkAnotherNameOfARemovedFileHasItsModeChanged) {
  MakeTree(top_, {{"a", "1"}});
  std::filesystem::create_hard_link(top_ + "/a", dir_.File("other"));
  EXPECT_TRUE(Remove());
  EXPECT_EQ(ReadFile(dir_.File("other")), "1");
  EXPECT_EQ(ModeOf(dir_.File("other")), 0777U);
}

TEST_F(DirectoryRemove, LinkIsRemovedAndNotItsTarget) {
  MakeTree(dir_.Path(), {{"file", "1"}, {"tree/a", "2"}, {"top/", ""}});
  chmod(dir_.File("file").c_str(), 0640);
  MakeLink("../file", top_ + "/to_file");
  MakeLink("../tree", top_ + "/to_tree");
  MakeLink("/dev/null", top_ + "/to_device");
  EXPECT_THAT(TraceOfRemoval(3, true, false), ElementsAre("CDirectory          : Remove directory \"T/top\"",
                                                          "CDirectory          : Found file: \"T/top/to_device\"",
                                                          "CDirectory          : Remove file \"T/top/to_device\" OK!",
                                                          "CDirectory          : Found file: \"T/top/to_file\"",
                                                          "CDirectory          : Remove file \"T/top/to_file\" OK!",
                                                          "CDirectory          : Found file: \"T/top/to_tree\"",
                                                          "CDirectory          : Remove file \"T/top/to_tree\" OK!"));
  EXPECT_TRUE(std::filesystem::is_empty(top_));
  EXPECT_EQ(ModeOf(dir_.File("file")), 0640U);
  EXPECT_EQ(ReadFile(dir_.File("tree/a")), "2");
}

TEST_F(DirectoryRemove, DanglingLinkStays) {
  MakeTree(top_, {{"a", "1"}});
  MakeLink("nowhere", top_ + "/dangling");
  EXPECT_FALSE(Remove());
  EXPECT_TRUE(Exists(top_ + "/dangling"));
  EXPECT_FALSE(Exists(top_ + "/a"));
}

TEST_F(DirectoryRemove, FifoStays) {
  MakeTree(top_, {{"a", "1"}});
  ASSERT_EQ(mkfifo((top_ + "/pipe").c_str(), 0600), 0);
  EXPECT_THAT(TraceOfRemoval(3, true, false), ElementsAre("CDirectory          : Remove directory \"T/top\"",
                                                          "CDirectory          : Found file: \"T/top/a\"",
                                                          "CDirectory          : Remove file \"T/top/a\" OK!"));
  EXPECT_TRUE(Exists(top_ + "/pipe"));
}

TEST_F(DirectoryRemove, LinkToTheDirectoryIsEmptiedAndStays) {
  MakeTree(dir_.Path(), {{"tree/a", "1"}});
  MakeLink("tree", top_);
  EXPECT_THAT(TraceOfRemoval(1, false),
              ElementsAre("CDirectory          : ERROR cannot remove parent directory \"T/top\": Not a directory"));
  EXPECT_TRUE(std::filesystem::is_empty(dir_.File("tree")));
}

TEST_F(DirectoryRemove, RelativePathsAndSlashesAtTheEndAreAccepted) {
  MakeTree(top_, {{"s/a", "1"}});
  top_ += "//";
  EXPECT_THAT(TraceOfRemoval(2, true), ElementsAre("CDirectory          : Remove directory \"T/top//\"",
                                                   "CDirectory          : Found dir: \"T/top///s\"",
                                                   "CDirectory          : Remove directory \"T/top///s\"",
                                                   "CDirectory          : Found file: \"T/top///s/a\""));
  EXPECT_FALSE(Exists(dir_.File("top")));
}

// A tree of five hundred levels. The stack is too small for a function that calls itself for each level.
TEST_F(DirectoryRemove, DeepTreeNeedsNoDeepStack) {
  std::string path = top_;
  for (; path.size() < 4000; path += "/ddddddd") ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  WriteFile(path.substr(0, path.size() - 7) + "f", "1");
  RunOnSmallStack([this] { EXPECT_TRUE(Remove()); });
  EXPECT_FALSE(Exists(top_));
}

TEST_F(DirectoryRemove, TreeDeeperThanAPathCanNameIsAFailure) {
  const std::filesystem::path here = std::filesystem::current_path();
  std::filesystem::create_directory(top_);
  std::filesystem::current_path(top_);
  const std::string name(200, 'd');
  for (int depth = 0; depth < 25; ++depth) {
    std::filesystem::create_directory(name);
    std::filesystem::current_path(name);
  }
  std::filesystem::current_path(here);
  EXPECT_FALSE(Remove());
  EXPECT_TRUE(Exists(top_));
}

}  // namespace
}  // namespace qx::test
