// Compares the scan of names files with CIniFile: both must find the same content.
#include "provider/NamesFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "inifile/IniFile.h"
#include "tests/support/Attacker.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace {

using qx::provider::NamesFile;
using qx::test::AsOrdinaryUser;
using qx::test::CountedCalls;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::kOrdinaryUser;

constexpr char kHead[] = "[Quaxel Report Instances]\nVersion=1\n";

// The content of a names file.
struct Names {
  int version = 0;
  std::string report_name;
  std::vector<std::pair<std::string, std::string>> instances;

  friend bool operator==(const Names&, const Names&) = default;
};

// Reads the file with one search for each key.
Names ReadKeyByKey(const std::string& path) {
  constexpr char kHeadSection[] = "Quaxel Report Instances";
  CIniFile file;
  EXPECT_TRUE(file.Open(path.c_str(), true));
  Names names;
  names.version = static_cast<int>(file.GetNumber(kHeadSection, "Version", 0));
  (void)file.GetString(names.report_name, kHeadSection, "Name", "");
  if (names.version != 1) return names;
  std::vector<std::string> keys;
  (void)file.GetEnums(keys, "Names");
  for (const std::string& key : keys) {
    std::string name;
    (void)file.GetString(name, "Names", key.c_str(), "");
    names.instances.emplace_back(key, name);
  }
  return names;
}

class NamesFileTest : public testing::Test {
 protected:
  std::string Path() const { return directory_.File("r.names"); }

  Names Read(const std::string& bytes) const {
    qx::test::WriteFile(Path(), bytes);
    NamesFile file;
    EXPECT_TRUE(file.Read(directory_.Path(), "r"));
    Names names{file.Version(), file.ReportName(), {}};
    for (const NamesFile::Instance* instance : file.Instances()) names.instances.push_back(*instance);
    return names;
  }
  bool CanRead(const std::string& name) const { return NamesFile().Read(directory_.Path(), name); }

  qx::test::TempDir directory_;
};

class RandomFile {
 public:
  explicit RandomFile(std::uint64_t seed) : random_(seed) {}

  std::string Bytes() {
    std::string bytes;
    for (std::size_t lines = Below(30); lines > 0; --lines) bytes += Line() + End();
    if (Below(4) == 0) bytes.resize(bytes.size() - std::min<std::size_t>(bytes.size(), Below(3)));
    return bytes;
  }

 private:
  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::string OneOf(const std::vector<std::string>& choices) { return choices[Below(choices.size())]; }

  std::string End() { return OneOf({"\n", "\n", "\n", "\r\n", "\n\n", " ; comment\n", std::string("\0x\n", 3)}); }

  std::string Line() {
    switch (Below(8)) {
      case 0:
        return OneOf({"[Quaxel Report Instances]", "[Quaxel Report Instances]", "[Names]", " [Names] text", "[Names",
                      "[ Names]", "[Other]", "[Names]]", "[]", "[", "[Quaxel Report Instances];x"});
      case 1:
        return OneOf({"Version=1", "Version=1", "Version = 0x1", "Version=2", "Version=", "version=1",
                      "Version=00000000000000000000000000000000001", "Version=1x", "Version=99999999999999999999"});
      case 2:
        return OneOf({"Name=r", "Name= a = b ", "Name=", "Name", " Name=late", "Name;=x"});
      case 3:
        return OneOf({"", ";", " ; x=y", "text", "\t", std::string(1030, 'x'), std::string(1022, 'k') + "=v"});
      default:
        return Key() + OneOf({"=", " = ", "\t=", "=="}) + Value();
    }
  }

  std::string Key() {
    if (Below(40) == 0) return "";
    if (Below(30) == 0) return std::string(Below(1100), 'l');
    return OneOf({"1", "2", "3", "10", "a b", " 7", "K\xC3\xA4", "x[", "Name", "Version"});
  }

  std::string Value() {
    if (Below(20) == 0) return std::string(1000 + Below(60), 'v');
    return OneOf({"", "North", "R&D <x>", "\"q\"", "a;b", "  x  ", "\xFF\x01", "y=z", "[z]"});
  }

  std::mt19937_64 random_;
};

TEST_F(NamesFileTest, RandomFilesAreReadAsKeyByKey) {
  RandomFile random(qx::test::Seed("NamesFile"));
  std::size_t listed = 0;
  for (int round = 0; round < 4000 && !HasFailure(); ++round) {
    std::string bytes = random.Bytes();
    if (round % 2 == 0) bytes = (round % 4 == 0 ? kHead : std::string(kHead) + "[Names]\n") + bytes;
    const Names names = Read(bytes);
    EXPECT_TRUE(names == ReadKeyByKey(Path())) << "round " << round << ":\n" << bytes;
    listed += names.instances.size();
  }
  EXPECT_GT(listed, 5000U);
}

// The keys of a list, each with its NUL, have a buffer of 64,512 bytes, of which they may use 64,509.
TEST_F(NamesFileTest, ListOverItsLimitIsEmptyAndOneByteLessIsNot) {
  for (std::size_t bytes = 64500; bytes <= 64520; ++bytes) {
    std::string file = std::string(kHead) + "[Names]\n";
    std::size_t left = bytes;
    std::size_t keys = 0;
    for (; left > 1000; left -= 500, ++keys) file += std::string(499, 'k') + "=x\n";
    file += std::string(left - 1, 'l') + "=y\n";
    const Names names = Read(file);
    EXPECT_EQ(names.instances.size(), bytes <= 64509 ? keys + 1 : 0) << bytes;
    EXPECT_EQ(names, ReadKeyByKey(Path())) << bytes;
  }
}

TEST_F(NamesFileTest, HeadAfterAListOverItsLimitIsStillRead) {
  std::string file = "[Names]\n";
  for (int i = 0; i < 200; ++i) file += std::string(500, 'k') + "=x\n";
  const Names names = Read(file + kHead + "Name=late\n");
  EXPECT_EQ(names, (Names{1, "late", {}}));
}

// A line has at most 1023 characters; the rest of a longer line is a line of its own. So no name comes near 65,536
// characters.
TEST_F(NamesFileTest, NameIsTheRestOfItsLine) {
  for (const std::size_t length : {1020U, 1021U, 1022U, 2000U, 70000U}) {
    const Names names = Read(std::string(kHead) + "[Names]\n1=" + std::string(length, 'v') + "\n2=x\n");
    ASSERT_EQ(names.instances.size(), 2U);
    EXPECT_EQ(names.instances[0].second, std::string(std::min<std::size_t>(length, 1021), 'v'));
    EXPECT_EQ(names.instances[1].second, "x");
    EXPECT_EQ(names, ReadKeyByKey(Path()));
  }
}

TEST_F(NamesFileTest, FirstEntryOfAKeyIsUsedForEachRepetition) {
  EXPECT_EQ(Read(std::string(kHead) + "[Names]\n1=a\n2=b\n1=c\n1=\n"),
            (Names{1, "", {{"1", "a"}, {"2", "b"}, {"1", "a"}, {"1", "a"}}}));
}

TEST_F(NamesFileTest, FileIsReadOnceWhateverTheNumberOfKeys) {
  constexpr std::size_t kWindowBytes = 16384;
  for (const int keys : {1, 2000}) {
    std::string bytes = std::string(8U << 20, 'x') + "\n" + kHead + "[Names]\n";
    for (int i = 0; i < keys; ++i) bytes += std::to_string(i) + "=name\n";
    qx::test::WriteFile(Path(), bytes);
    const CountedCalls reads(FileCall::kReadAt);
    NamesFile file;
    ASSERT_TRUE(file.Read(directory_.Path(), "r"));
    EXPECT_EQ(file.Instances().size(), static_cast<std::size_t>(keys));
    EXPECT_LE(static_cast<std::size_t>(reads.Calls()), bytes.size() / (kWindowBytes - 1024) + 3);
  }
}

TEST_F(NamesFileTest, FileThatCannotBeReadToItsEndIsNotRead) {
  qx::test::WriteFile(Path(), std::string(kHead) + "[Names]\n1=a\n");
  for (int nth = 1; nth <= 2; ++nth) {
    const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EIO});
    EXPECT_FALSE(CanRead("r")) << nth;
  }
  EXPECT_TRUE(CanRead("r"));
}

TEST_F(NamesFileTest, LinkOfAnOrdinaryUserToAnothersFileIsNotRead) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to act as two users";
  qx::test::WriteFile(directory_.File("secret"), std::string(kHead) + "[Names]\n1=secret\n");
  ASSERT_EQ(symlink("secret", Path().c_str()), 0);
  EXPECT_TRUE(CanRead("r"));
  ASSERT_EQ(lchown(Path().c_str(), kOrdinaryUser, kOrdinaryUser), 0);
  EXPECT_FALSE(CanRead("r"));
  ASSERT_EQ(chown(directory_.File("secret").c_str(), kOrdinaryUser, kOrdinaryUser), 0);
  EXPECT_TRUE(CanRead("r"));
}

TEST_F(NamesFileTest, DirectoryNeedNotBeListable) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to act as two users";
  qx::test::WriteFile(Path(), kHead);
  ASSERT_EQ(chmod(directory_.Path().c_str(), 0711), 0);
  EXPECT_TRUE(AsOrdinaryUser([&] { return CanRead("r"); }));
  ASSERT_EQ(chmod(directory_.Path().c_str(), 0700), 0);
  EXPECT_FALSE(AsOrdinaryUser([&] { return CanRead("r"); }));
}

TEST_F(NamesFileTest, NameThatBeginsWithSlashesIsBelowTheDirectory) {
  qx::test::WriteFile(Path(), kHead);
  EXPECT_TRUE(CanRead("/r"));
  EXPECT_TRUE(CanRead("//r"));
  EXPECT_FALSE(CanRead(""));
  qx::test::WriteFile(directory_.File(".names"), kHead);
  EXPECT_TRUE(CanRead(""));
}

}  // namespace
