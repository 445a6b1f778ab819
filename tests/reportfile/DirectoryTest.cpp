// Tests copies of directory trees: which files are copied where, and every line of the trace.
#include "reportfile/Directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/reportfile/Trees.h"
#include "tests/support/Attacker.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// An empty directory "from"; "to" does not exist.
class DirectoryCopy : public testing::Test {
 protected:
  bool Copy(const char* pattern = "*.*", bool overwrite = true) {
    return CDirectory::CopyDir(from_.c_str(), to_.c_str(), pattern, overwrite);
  }

  // The trace of one copy at `level`, with the private directory as "T".
  std::vector<std::string> TraceOfCopy(int level, bool expected, const char* pattern = "*.*", bool overwrite = true) {
    const TraceCapture trace(level);
    EXPECT_EQ(Copy(pattern, overwrite), expected);
    return Shortened(trace.Entries(), dir_.Path());
  }

  void SetUp() override { std::filesystem::create_directory(from_); }

  const ScopedUmask umask_{022};
  TempDir dir_;
  std::string from_ = dir_.File("from");
  std::string to_ = dir_.File("to");
};

TEST_F(DirectoryCopy, RelativePathsAreRefusedAndNothingIsCreated) {
  WriteFile(from_ + "/a", "x");
  const TraceCapture trace(6);
  for (const char* const bad : {"from", "", "./from", static_cast<const char*>(nullptr)}) {
    errno = 0;
    EXPECT_FALSE(CDirectory::CopyDir(bad, to_.c_str(), "*.*", true));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(CDirectory::CopyDir(from_.c_str(), bad, "*.*", true));
  }
  EXPECT_FALSE(Exists(to_));
  const std::string line = "CDirectory::CopyDir() - ## ERROR: Only absolute paths are accepted.";
  EXPECT_THAT(trace.Entries(), testing::AllOf(testing::SizeIs(8), testing::Each(line)));
}

TEST_F(DirectoryCopy, EmptySourceIsNotAnErrorAndMakesNoDestination) {
  EXPECT_THAT(TraceOfCopy(6, true),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                          "CDirectory::CopyDir() - Could not find matching files to copy. No such file or directory"));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(DirectoryCopy, MissingSourceIsNotAnErrorAndMakesNoDestination) {
  std::filesystem::remove(from_);
  EXPECT_THAT(TraceOfCopy(6, true),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                          "CDirectory::CopyDir() - Could not find matching files to copy. No such file or directory"));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(DirectoryCopy, FileAsSourceIsNotAnErrorAndMakesNoDestination) {
  std::filesystem::remove(from_);
  WriteFile(from_, "x");
  EXPECT_THAT(TraceOfCopy(4, true),
              ElementsAre("CDirectory::CopyDir() - Could not find matching files to copy. Not a directory"));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(DirectoryCopy, QuirkSourceThatMayNotBeReadCountsAsEmpty) {
  WriteFile(from_ + "/a", "x");
  chmod(from_.c_str(), 0);
  const auto copy = [this] { return Copy(); };
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), copy));
  EXPECT_FALSE(Exists(to_));
  chmod(from_.c_str(), 0700);
}

TEST_F(DirectoryCopy, CopyOfOneFileIsTraced) {
  WriteFile(from_ + "/a.dat", "text");
  EXPECT_THAT(TraceOfCopy(6, true), ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                                                "CDirectory::CopyDir() - Copy file T/from/a.dat --> T/to/a.dat"));
  EXPECT_EQ(ReadFile(to_ + "/a.dat"), "text");
}

TEST_F(DirectoryCopy, LinesHaveTheirLevels) {
  std::filesystem::create_directory(from_ + "/sub");
  EXPECT_THAT(TraceOfCopy(3, true), IsEmpty());
  EXPECT_THAT(TraceOfCopy(4, true),
              ElementsAre("CDirectory::CopyDir() - Copy DIR T/from/sub --> T/to/sub",
                          "CDirectory::CopyDir() - Could not find matching files to copy. No such file or directory"));
  EXPECT_THAT(TraceOfCopy(5, true),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                          "CDirectory::CopyDir() - Copy DIR T/from/sub --> T/to/sub",
                          "CDirectory::CopyDir() - Looking for files matching T/from/sub/*",
                          "CDirectory::CopyDir() - Could not find matching files to copy. No such file or directory"));
}

TEST_F(DirectoryCopy, TreesAreCopiedWhole) {
  MakeTree(from_, {{"a.dat", "1"}, {".hidden", "2"}, {"none", ""}, {"sub/b.ind", "3"}, {"sub/.deep/c", "4"}});
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ContentsOf(to_), ContentsOf(from_));
}

TEST_F(DirectoryCopy, EveryNamePatternMatchesNamesWithoutADotAndHiddenOnes) {
  MakeTree(from_, {{"plain", "1"}, {"with.dot", "2"}, {".hidden", "3"}});
  EXPECT_TRUE(Copy("*.*"));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("plain", "1"), Pair("with.dot", "2"), Pair(".hidden", "3")));
}

TEST_F(DirectoryCopy, PatternAppliesAtEveryLevel) {
  MakeTree(from_, {{"a.dat", "1"}, {"a.ind", "2"}, {"sub.dat/b.dat", "3"}, {"sub.dat/b.ind", "4"}, {"sub/c.dat", "5"}});
  EXPECT_TRUE(Copy("*.dat"));
  EXPECT_THAT(ContentsOf(to_),
              UnorderedElementsAre(Pair("a.dat", "1"), Pair("sub.dat/", ""), Pair("sub.dat/b.dat", "3")));
}

TEST_F(DirectoryCopy, PatternWithoutWildcardsNamesOneEntry) {
  MakeTree(from_, {{"a", "1"}, {"b", "2"}, {"a[1]", "3"}});
  EXPECT_TRUE(Copy("a"));
  EXPECT_TRUE(Copy("a\\[1]"));
  EXPECT_TRUE(Copy("none"));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("a", "1"), Pair("a[1]", "3")));
}

TEST_F(DirectoryCopy, OnlyTheFirstEveryNameOfTheWholeExpressionIsReplaced) {
  MakeTree(from_, {{"plain", "1"}, {"with.dot", "2"}});
  EXPECT_THAT(TraceOfCopy(5, true, "*.*.*"),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*.*",
                          "CDirectory::CopyDir() - Copy file T/from/with.dot --> T/to/with.dot"));
  EXPECT_TRUE(CDirectory::CopyDir((dir_.Path() + "/*.*").c_str(), dir_.File("other").c_str(), "*.*", true));
  EXPECT_THAT(ContentsOf(dir_.File("other")), UnorderedElementsAre(Pair("with.dot", "2")));
}

TEST_F(DirectoryCopy, WildcardsInTheSourceNameSeveralDirectories) {
  MakeTree(dir_.Path(), {{"x1/a", "1"}, {"x2/b", "2"}, {"x3", "a file"}, {"y/c", "3"}});
  EXPECT_TRUE(CDirectory::CopyDir(dir_.File("x?").c_str(), to_.c_str(), "*", true));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST_F(DirectoryCopy, DirectoryItselfAndItsParentAreNeverCopied) {
  MakeTree(from_, {{"a", "1"}});
  for (const char* const pattern : {".", "..", ".*", "", "*/", "..*"}) EXPECT_TRUE(Copy(pattern)) << pattern;
  EXPECT_TRUE(Copy(nullptr));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(DirectoryCopy, NameOfAFoundDirectoryIsNotAPattern) {
  MakeTree(from_, {{"[ab]/x", "1"}, {"a/x", "2"}, {"*/y", "3"}, {"\\/z", "4"}, {"*.*/w", "5"}, {"?/v/u", "6"}});
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ContentsOf(to_), ContentsOf(from_));
  EXPECT_EQ(ContentsOf(to_).size(), 13U);
}

TEST_F(DirectoryCopy, PatternOfSeveralComponentsKeepsFoundNamesLiteral) {
  MakeTree(from_, {{"[ab]/s/x", "1"}, {"[ab]/s/[ab]/s/y", "2"}, {"a/s/x", "3"}});
  EXPECT_TRUE(CDirectory::CopyDir((from_ + "/\\[ab]").c_str(), to_.c_str(), "?/*", true));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("x", "1"), Pair("[ab]/", ""), Pair("[ab]/y", "2")));
}

TEST_F(DirectoryCopy, MissingDirectoriesAreCreatedWithMode0711) {
  MakeTree(from_, {{"a", "1"}, {"sub/b", "2"}});
  to_ = dir_.File("new/and/deep/");
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ReadFile(to_ + "a"), "1");
  for (const char* const made : {"new", "new/and", "new/and/deep", "new/and/deep/sub"}) {
    EXPECT_EQ(ModeOf(dir_.File(made)), 0711U) << made;
  }
}

TEST_F(DirectoryCopy, ModesAreSubjectToTheFileCreationMask) {
  MakeTree(from_, {{"a", "1"}});
  chmod((from_ + "/a").c_str(), 0666);
  const ScopedUmask umask(077);
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ModeOf(to_), 0700U);
  EXPECT_EQ(ModeOf(to_ + "/a"), 0600U);
}

TEST_F(DirectoryCopy, NewFileHasOnlyThePermissionBitsOfItsSource) {
  for (const mode_t mode : {0600U, 0640U, 0755U, 0444U, 04755U}) {
    const std::string name = "/f" + std::to_string(mode);
    WriteFile(from_ + name, "x");
    ASSERT_EQ(chmod((from_ + name).c_str(), mode), 0);
  }
  EXPECT_TRUE(Copy());
  for (const mode_t mode : {0600U, 0640U, 0755U, 0444U}) EXPECT_EQ(ModeOf(to_ + "/f" + std::to_string(mode)), mode);
  EXPECT_EQ(ModeOf(to_ + "/f" + std::to_string(04755)), 0755U);
}

TEST_F(DirectoryCopy, NewFileHasTheOwnerOfItsSourceIfTheSystemAllowsIt) {
  WriteFile(from_ + "/a", "x");
  const bool may_give = geteuid() == 0 && chown((from_ + "/a").c_str(), 1234, 2345) == 0;
  EXPECT_TRUE(Copy());
  struct stat status;
  ASSERT_EQ(stat((to_ + "/a").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, may_give ? 1234 : geteuid());
  EXPECT_EQ(status.st_gid, may_give ? 2345 : getegid());
}

TEST_F(DirectoryCopy, OwnerThatMayNotBeSetIsNotAFailure) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another owner";
  MakeTree(dir_.Path(), {{"from/a", "text"}, {"to/", ""}});
  ASSERT_EQ(chown((from_ + "/a").c_str(), 1234, 2345), 0);
  ASSERT_EQ(chmod((from_ + "/a").c_str(), 0644), 0);
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), [this] { return Copy(); }));
  EXPECT_EQ(ReadFile(to_ + "/a"), "text");
}

TEST_F(DirectoryCopy, WithoutOverwriteAnExistingFileIsLeft) {
  MakeTree(dir_.Path(), {{"from/a", "new"}, {"to/a", "old one"}});
  chmod((to_ + "/a").c_str(), 0600);
  EXPECT_THAT(TraceOfCopy(6, true, "*.*", false),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                          "CDirectory::CopyDir() - Copy file T/from/a --> T/to/a"));
  EXPECT_EQ(ReadFile(to_ + "/a"), "old one");
}

TEST_F(DirectoryCopy, OverwrittenFileHasNewContentsAndItsOldMode) {
  MakeTree(dir_.Path(), {{"from/a", "new"}, {"to/a", "old and longer"}});
  chmod((from_ + "/a").c_str(), 0644);
  chmod((to_ + "/a").c_str(), 0640);
  EXPECT_TRUE(Copy("*.*", true));
  EXPECT_EQ(ReadFile(to_ + "/a"), "new");
  EXPECT_EQ(ModeOf(to_ + "/a"), 0640U);
}

TEST_F(DirectoryCopy, WithoutOverwriteAnExistingSubdirectoryIsLeft) {
  MakeTree(dir_.Path(), {{"from/sub/a", "new"}, {"from/sub/b", "new"}, {"to/sub/a", "old"}});
  EXPECT_THAT(TraceOfCopy(6, true, "*.*", false),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                          "CDirectory::CopyDir() - Copy DIR T/from/sub --> T/to/sub",
                          "CDirectory::CopyDir() - Subdirectory exists but will not be replaced."));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("sub/", ""), Pair("sub/a", "old")));
}

TEST_F(DirectoryCopy, WithOverwriteAnExistingSubdirectoryIsFilled) {
  MakeTree(dir_.Path(), {{"from/sub/a", "new"}, {"to/sub/a", "old"}, {"to/sub/b", "kept"}});
  EXPECT_TRUE(Copy("*.*", true));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("sub/", ""), Pair("sub/a", "new"), Pair("sub/b", "kept")));
}

TEST_F(DirectoryCopy, FilesOfEverySizeAroundABlockAreCopiedExactly) {
  for (const std::size_t size : {0UL, 1UL, 255UL, 256UL, 257UL, 16383UL, 16384UL, 16385UL, 5UL << 20}) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 256);
    WriteFile(from_ + "/" + std::to_string(size), bytes);
  }
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ContentsOf(to_), ContentsOf(from_));
}

TEST_F(DirectoryCopy, FileOfProcWithSizeZeroIsCopied) {
  EXPECT_TRUE(CDirectory::CopyDir("/proc/self", to_.c_str(), "cmdline", true));
  EXPECT_EQ(ReadFile(to_ + "/cmdline"), ReadFile("/proc/self/cmdline"));
}

TEST_F(DirectoryCopy, LinksAreFollowed) {
  MakeTree(dir_.Path(), {{"file", "1"}, {"tree/a", "2"}});
  MakeLink("../file", from_ + "/f");
  MakeLink("../tree", from_ + "/d");
  EXPECT_TRUE(Copy());
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("f", "1"), Pair("d/", ""), Pair("d/a", "2")));
}

TEST_F(DirectoryCopy, DanglingLinkIsNotCopied) {
  MakeTree(from_, {{"a", "1"}});
  MakeLink("nowhere", from_ + "/dangling");
  MakeLink("circle", from_ + "/circle");
  EXPECT_THAT(TraceOfCopy(6, true), ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                                                "CDirectory::CopyDir() - Copy file T/from/a --> T/to/a"));
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("a", "1")));
}

TEST_F(DirectoryCopy, LinkToADirectoryAboveIsNotEntered) {
  MakeTree(from_, {{"sub/a", "1"}});
  for (const char* const name : {"sub/1", "sub/2", "sub/3"}) MakeLink("..", from_ + "/" + name);
  MakeLink(".", from_ + "/self");
  EXPECT_TRUE(Copy());
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("sub/", ""), Pair("sub/a", "1")));
}

TEST_F(DirectoryCopy, DestinationInTheSourceIsNotCopiedIntoItself) {
  MakeTree(from_, {{"a", "1"}, {"backup/", ""}});
  to_ = from_ + "/backup";
  EXPECT_TRUE(Copy());
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("a", "1")));

  to_ = from_ + "/new/deep";
  MakeTree(from_, {{"new/b", "2"}});
  EXPECT_TRUE(Copy());
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("a", "1"), Pair("backup/", ""), Pair("backup/a", "1"),
                                                    Pair("new/", ""), Pair("new/b", "2")));
}

TEST_F(DirectoryCopy, DestinationInTheSourceIsTraced) {
  MakeTree(from_, {{"backup/", ""}});
  to_ = from_ + "/backup";
  EXPECT_THAT(
      TraceOfCopy(5, true),
      ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                  "CDirectory::CopyDir() - Copy DIR T/from/backup --> T/from/backup/backup",
                  "CDirectory::CopyDir() - Subdirectory is part of this copy already and will not be entered."));
}

TEST_F(DirectoryCopy, FileThatIsItsOwnTargetKeepsItsContents) {
  MakeTree(dir_.Path(),
           {{"from/same", "1"}, {"from/hard", "22"}, {"from/soft", "333"}, {"from/sub/x", "4"}, {"to/", ""}});
  std::filesystem::create_hard_link(from_ + "/hard", to_ + "/hard");
  MakeLink(from_ + "/soft", to_ + "/soft");
  EXPECT_TRUE(Copy());
  EXPECT_THAT(ContentsOf(from_), UnorderedElementsAre(Pair("same", "1"), Pair("hard", "22"), Pair("soft", "333"),
                                                      Pair("sub/", ""), Pair("sub/x", "4")));
  const auto before = ContentsOf(from_);
  EXPECT_TRUE(CDirectory::CopyDir(from_.c_str(), from_.c_str(), "*.*", true));
  EXPECT_EQ(ContentsOf(from_), before);
}

TEST_F(DirectoryCopy, FileThatIsItsOwnTargetNeedNotBeWritable) {
  MakeTree(from_, {{"a", "1"}});
  chmod((from_ + "/a").c_str(), 0444);
  to_ = from_;
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), [this] { return Copy(); }));
  EXPECT_EQ(ReadFile(from_ + "/a"), "1");
}

TEST_F(DirectoryCopy, LinkToTheSourceAsTargetKeepsTheContents) {
  MakeTree(from_, {{"a", "1"}});
  MakeLink("a", from_ + "/b");
  MakeLink("from", to_);
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ReadFile(from_ + "/a"), "1");
}

class DirectoryCopyFailure : public DirectoryCopy {
 protected:
  static std::string FileFailed(const char* text) {
    return std::string("CDirectory::CopyDir() - ## ERROR: Could not copy file. ") + text;
  }
};

TEST_F(DirectoryCopyFailure, FifoFailsTheCopyAndIsNotWaitedFor) {
  ASSERT_EQ(mkfifo((from_ + "/pipe").c_str(), 0666), 0);
  EXPECT_THAT(TraceOfCopy(4, false), ElementsAre("CDirectory::CopyDir() - Copy file T/from/pipe --> T/to/pipe",
                                                 FileFailed("Invalid argument")));
  EXPECT_FALSE(Exists(to_ + "/pipe"));
  errno = 0;
  EXPECT_FALSE(Copy());
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(DirectoryCopyFailure, DevicesAreFailedCopies) {
  EXPECT_FALSE(CDirectory::CopyDir("/dev", to_.c_str(), "null", true));
  MakeLink("/dev/zero", from_ + "/endless");
  EXPECT_THAT(TraceOfCopy(1, false), ElementsAre(FileFailed("Invalid argument")));
  EXPECT_THAT(ContentsOf(to_), IsEmpty());
}

TEST_F(DirectoryCopyFailure, FifoAsTargetFailsTheCopyAndIsNotWaitedFor) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to/", ""}});
  ASSERT_EQ(mkfifo((to_ + "/a").c_str(), 0666), 0);
  EXPECT_THAT(TraceOfCopy(1, false), ElementsAre(FileFailed("Invalid argument")));
  EXPECT_TRUE(Copy("*.*", false));
}

TEST_F(DirectoryCopyFailure, DirectoryInPlaceOfATargetFile) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to/a/b", "2"}});
  EXPECT_THAT(TraceOfCopy(1, false), ElementsAre(FileFailed("Is a directory")));
  EXPECT_TRUE(Copy("*.*", false));  // the name exists, so it is not overwritten
  EXPECT_THAT(ContentsOf(to_), UnorderedElementsAre(Pair("a/", ""), Pair("a/b", "2")));
}

TEST_F(DirectoryCopyFailure, FileInPlaceOfTheDestinationFailsWithTheFirstFile) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to", "a file"}});
  EXPECT_THAT(TraceOfCopy(1, false), ElementsAre(FileFailed("Not a directory")));
  EXPECT_EQ(ReadFile(to_), "a file");
}

TEST_F(DirectoryCopyFailure, DanglingLinkAsTarget) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to/", ""}});
  MakeLink("nowhere", to_ + "/a");
  EXPECT_THAT(TraceOfCopy(1, false), ElementsAre(FileFailed("No such file or directory")));
  EXPECT_TRUE(Copy("*.*", false));
}

TEST_F(DirectoryCopyFailure, FileInPlaceOfADirectoryAboveTheDestination) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to", "a file"}});
  to_ += "/deep/er";
  EXPECT_THAT(
      TraceOfCopy(5, false),
      ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                  "CDirectory::CopyDir() - ## ERROR: Could not create destination dir. Error: Not a directory"));
}

TEST_F(DirectoryCopyFailure, FileInPlaceOfASubdirectoryIsTracedOnEveryLevel) {
  MakeTree(dir_.Path(), {{"from/s/t/a", "1"}, {"to/s/t", "a file"}});
  EXPECT_THAT(
      TraceOfCopy(5, false),
      ElementsAre("CDirectory::CopyDir() - Looking for files matching T/from/*",
                  "CDirectory::CopyDir() - Copy DIR T/from/s --> T/to/s",
                  "CDirectory::CopyDir() - Looking for files matching T/from/s/*",
                  "CDirectory::CopyDir() - Copy DIR T/from/s/t --> T/to/s/t",
                  "CDirectory::CopyDir() - Looking for files matching T/from/s/t/*",
                  "CDirectory::CopyDir() - Copy file T/from/s/t/a --> T/to/s/t/a", FileFailed("Not a directory"),
                  "CDirectory::CopyDir() - ## ERROR: Subdirectory could not be copied. Not a directory",
                  "CDirectory::CopyDir() - ## ERROR: Subdirectory could not be copied. Not a directory"));
}

TEST_F(DirectoryCopyFailure, UnreadableFile) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to/", ""}});
  chmod((from_ + "/a").c_str(), 0);
  const auto copy = [this] { return !Copy() && errno == EACCES; };
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), copy));
}

TEST_F(DirectoryCopyFailure, UnwritableTargetFile) {
  MakeTree(dir_.Path(), {{"from/a", "1"}, {"to/a", "old"}});
  chmod((to_ + "/a").c_str(), 0444);
  const auto copy = [this] { return !Copy() && errno == EACCES; };
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), copy));
  EXPECT_EQ(ReadFile(to_ + "/a"), "old");
}

// A directory path of exactly `size` characters below the private directory.
std::string PathOfSize(const std::string& dir, std::size_t size) {
  std::string path = dir;
  while (path.size() + 101 < size) path += "/" + std::string(99, 'd');
  return path + "/" + std::string(size - path.size() - 1, 'e');
}

TEST_F(DirectoryCopyFailure, DestinationLongerThan259CharactersFailsAndIsNotCut) {
  MakeTree(from_, {{"a", "1"}});
  to_ = PathOfSize(dir_.Path(), 259);
  EXPECT_TRUE(Copy());
  EXPECT_EQ(ReadFile(to_ + "/a"), "1");

  to_ = PathOfSize(dir_.Path() + "/other", 260);
  EXPECT_THAT(
      TraceOfCopy(1, false),
      ElementsAre("CDirectory::CopyDir() - ## ERROR: Could not create destination dir. Error: File name too long"));
  EXPECT_FALSE(Exists(dir_.File("other")));
}

TEST_F(DirectoryCopyFailure, SubdirectoryLongerThan259CharactersFailsAndIsNotCut) {
  MakeTree(from_, {{"sub/a", "1"}});
  to_ = PathOfSize(dir_.Path(), 256);
  EXPECT_THAT(TraceOfCopy(1, false),
              ElementsAre("CDirectory::CopyDir() - ## ERROR: Could not create destination subdirectory. Error: "
                          "File name too long"));
  EXPECT_THAT(ContentsOf(to_), IsEmpty());
}

TEST_F(DirectoryCopyFailure, WideAndDeepTreeNeedsFewDescriptors) {
  std::string path;
  for (int depth = 0; depth < 60; ++depth) {
    path += "d/";
    MakeTree(from_, {{path + "f", std::to_string(depth)}});
  }
  to_ = dir_.File("t");
  const auto copy_and_remove = [this] {
    const ScopedDescriptorLimit few(4);
    return Copy() && CDirectory::RemoveDir(from_.c_str(), true);
  };
  const auto before = ContentsOf(from_);
  EXPECT_TRUE(copy_and_remove());
  EXPECT_EQ(ContentsOf(to_), before);
}

}  // namespace
}  // namespace qx::test
