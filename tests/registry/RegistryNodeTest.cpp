#include "registry/RegistryNode.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "registry/RegistryValue.h"
#include "tests/registry/RegistryFixture.h"

namespace {

using qx::registry::NewText;
using qx::registry::NodeOf;
using qx::test::DocExample;
using qx::test::Dump;
using qx::test::HexDump;
using qx::test::kExample;
using qx::test::Reread;
using qx::test::Restore;

void Put(CRegistryNode& key, const char* name, std::int32_t type, void* data) {
  RegistryValue value;
  value.type = type;
  value.slot.pointer = data;
  RegistryValue displaced;
  ASSERT_TRUE(key.Put(name, value, displaced));
}

void PutNumber(CRegistryNode& key, const char* name, std::int32_t number) {
  RegistryValue value;
  value.type = REG_DWORD;
  value.slot.number = number;
  RegistryValue displaced;
  ASSERT_TRUE(key.Put(name, value, displaced));
}

TEST(RegistryNode, ExampleOfEightLinesIsReadAndWritten) {
  CRegistryNode root;
  EXPECT_TRUE(Restore(root, kExample));
  EXPECT_EQ(Dump(root), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nBlob=b=0a ff \nCount=d=-5\nName=s=some text\n\n\n\n");
}

TEST(RegistryNode, WorkedExamplesOfThePageAreWrittenAsShown) {
  EXPECT_EQ(Reread(kExample), DocExample("registry-file.md", "registry-file"));
  EXPECT_EQ(HexDump(Reread(kExample)), DocExample("registry-file.md", "registry-bytes"));

  constexpr std::string_view kFile = "--- file\n";
  constexpr std::string_view kWritten = "--- written again\n";
  const std::string example = DocExample("registry-file.md", "registry-read");
  const std::size_t middle = example.find(kWritten);
  EXPECT_EQ(Reread(example.substr(kFile.size(), middle - kFile.size())), example.substr(middle + kWritten.size()));
}

TEST(RegistryNode, ValuesComeBeforeSubkeysEachInByteOrderOfNames) {
  EXPECT_EQ(Reread("[b]\n\n[C]\n\nz=d=1\nd=s=x\nB=d=2\n[a]\nq=d=1\n\n"),
            "B=d=2\nd=s=x\nz=d=1\n[C]\n\n[a]\nq=d=1\n\n[b]\n\n\n");
}

TEST(RegistryNode, EveryTypeHasItsMarker) {
  constexpr std::string_view kText = "a=s=text\nb=es=%HOME%/x\nc=b=00 7f 80 ff \nd=d=-2147483648\ne=b=\nf=s=\n\n";
  EXPECT_EQ(Reread(kText), kText);
}

TEST(RegistryNode, DumpSkipsEntriesWithoutDataAndUnknownTypes) {
  CRegistryNode key;
  for (const std::int32_t type : {0, 1, 2, 3, 5, 666, 667})
    Put(key, ("n" + std::to_string(type)).c_str(), type, nullptr);
  Put(key, "odd", 77, NewText("x"));
  PutNumber(key, "zero", 0);
  EXPECT_EQ(Dump(key), "zero=d=0\n\n");
  delete[] static_cast<char*>(key.Find("odd")->value.slot.pointer);
}

TEST(RegistryNode, NullStreamsDoNothing) {
  CRegistryNode key;
  key.dumpNode(nullptr);
  EXPECT_FALSE(key.restoreNode(nullptr));
}

TEST(RegistryNode, StringWithEqualsAndBracketsSurvives) {
  EXPECT_EQ(Reread("x=s=a=b[c]=s=[d\n"), "x=s=a=b[c]=s=[d\n\n");
}

TEST(RegistryNode, QuirkNameWithEqualsIsCutThere) {
  EXPECT_EQ(Reread("a=b=s=text\n"), "a=b=\n\n");  // read back as the binary value "a"; "s=text" has no number
  EXPECT_EQ(Reread("a=bc=s=text\n"), "\n");       // no marker at the first "=": the line is ignored
  EXPECT_EQ(Reread("=s=text\n"), "=s=text\n\n");  // a value without a name
}

TEST(RegistryNode, QuirkStringWithALineFeedIsSplitIntoABadLine) {
  CRegistryNode key;
  Put(key, "x", REG_SZ, NewText("one\ntwo"));
  const std::string text = Dump(key);
  EXPECT_EQ(text, "x=s=one\ntwo\n\n");
  EXPECT_EQ(Reread(text), "x=s=one\n\n");
}

TEST(RegistryNode, QuirkNameWithALineFeedLosesItsBeginning) {
  CRegistryNode key;
  PutNumber(key, "one\ntwo", 5);
  EXPECT_EQ(Reread(Dump(key)), "two=d=5\n\n");
}

TEST(RegistryNode, KeyNameThatBeginsWithABracketSurvives) {
  EXPECT_EQ(Reread("[[abc]\nx=d=1\n\n"), "[[abc]\nx=d=1\n\n\n");
}

TEST(RegistryNode, QuirkKeyNameIsCutAtItsFirstClosingBracket) {
  EXPECT_EQ(Reread("[a]b] and more\nx=d=1\n\n"), "[a]\nx=d=1\n\n\n");
}

TEST(RegistryNode, QuirkValueWhoseNameLooksLikeAKeyIsReadAsOne) {
  EXPECT_EQ(Reread("[a]=s=text\nx=d=1\n\n"), "[a]\nx=d=1\n\n\n");
  EXPECT_EQ(Reread("[a=s=tex]t\nx=d=1\n\n"), "[a=s=tex]\nx=d=1\n\n\n");
  EXPECT_EQ(Reread("[a=s=text\n"), "[a=s=text\n\n");
}

TEST(RegistryNode, KeyAndValueMayHaveEmptyNames) { EXPECT_EQ(Reread("[]\n=d=1\n\n"), "[]\n=d=1\n\n\n"); }

TEST(RegistryNode, QuirkLineOf1023CharactersClosesItsKey) {
  const std::string longest = "x=s=" + std::string(1019, 'y');
  CRegistryNode root;
  EXPECT_TRUE(Restore(root, "[K]\n" + longest + "\nafter=d=1\n"));
  EXPECT_EQ(Dump(root), "after=d=1\n[K]\n" + longest + "\n\n\n");
}

TEST(RegistryNode, QuirkRestOfALongerLineIsALineOfItsOwn) {
  const std::string longest = "x=s=" + std::string(1019, 'y');
  EXPECT_EQ(Reread(longest + "z=d=7\n"), longest + "\nz=d=7\n\n");
}

TEST(RegistryNode, QuirkNulEndsALineAndAnEmptyOneClosesTheKey) {
  EXPECT_EQ(Reread({"x=s=ab\0cd\ny=d=1\n", 16}), "x=s=ab\ny=d=1\n\n");
  EXPECT_EQ(Reread({"x=d=1\n\0y=d=1\nz=d=2\n", 20}), "x=d=1\n\n");
}

TEST(RegistryNode, QuirkEmptyLineAtRootLevelEndsTheFile) {
  CRegistryNode root;
  EXPECT_TRUE(Restore(root, "x=d=1\n\ny=d=2\n"));
  EXPECT_EQ(Dump(root), "x=d=1\n\n");
}

TEST(RegistryNode, EndOfFileClosesAllKeys) {
  EXPECT_EQ(Reread("[a]\n[b]\n[c]\nx=d=1"), "[a]\n[b]\n[c]\nx=d=1\n\n\n\n\n");
}

TEST(RegistryNode, NumbersAreDecimalAndTruncatedTo32Bits) {
  EXPECT_EQ(Reread("x=d=12abc\n"), "x=d=12\n\n");
  EXPECT_EQ(Reread("x=d=4294967295\n"), "x=d=-1\n\n");
  EXPECT_EQ(Reread("x=d= \t+7\n"), "x=d=7\n\n");
  EXPECT_EQ(Reread("x=d=010\n"), "x=d=10\n\n");
  EXPECT_EQ(Reread("x=d=0x10\n"), "x=d=0\n\n");
  EXPECT_EQ(Reread("x=d=99999999999999999999\n"), "x=d=-1\n\n");  // saturates at 2^63 - 1
  EXPECT_EQ(Reread("x=d=-99999999999999999999\n"), "x=d=0\n\n");  // saturates at -2^63
}

TEST(RegistryNode, QuirkNumberLineWithoutDigitsStoresNothingAndCountsAsRead) {
  CRegistryNode key;
  EXPECT_TRUE(Restore(key, "x=d=\n"));
  EXPECT_TRUE(Restore(key, "x=d=abc\n"));
  EXPECT_EQ(Dump(key), "\n");
  EXPECT_TRUE(Restore(key, "x=d=5\nx=d=\n"));
  EXPECT_EQ(Dump(key), "x=d=5\n\n");  // and replaces nothing
}

TEST(RegistryNode, BinaryNumbersAreHexadecimalAndKeepTheirLowEightBits) {
  EXPECT_EQ(Reread("x=b=\n"), "x=b=\n\n");
  EXPECT_EQ(Reread("x=b=1ff 2\n"), "x=b=ff 02 \n\n");
  EXPECT_EQ(Reread("x=b=0A fF\n"), "x=b=0a ff \n\n");
  EXPECT_EQ(Reread("x=b=  1\t\t2 q 3\n"), "x=b=01 02 \n\n");
  EXPECT_EQ(Reread("x=b=-1 0x1f\n"), "x=b=ff 1f \n\n");
  // The data is as long as in the form of a save, but has another byte in place of a digit or a space.
  EXPECT_EQ(Reread("x=b=0A FF \n"), "x=b=0a ff \n\n");
  EXPECT_EQ(Reread("x=b=01 1g 02 \n"), "x=b=01 01 \n\n");
  EXPECT_EQ(Reread("x=b=01 g1 02 \n"), "x=b=01 \n\n");
  EXPECT_EQ(Reread("x=b=01 02,03 \n"), "x=b=01 02 \n\n");
}

TEST(RegistryNode, BinaryLineWithMoreNumbersThanAThirdOfItsLengthKeepsAllOfThem) {
  std::string line = "x=b=";
  std::string expected = "x=b=";
  for (int i = 0; i < 509; ++i) {
    line += "+7";
    expected += "07 ";
  }
  CRegistryNode key;
  EXPECT_TRUE(Restore(key, line + "\n"));
  EXPECT_EQ(Dump(key), expected + "\n\n");
}

TEST(RegistryNode, LinesWithoutAMarkerAreIgnored) {
  CRegistryNode key;
  EXPECT_FALSE(Restore(key, "no equals\nx=\nx=s\nx=x=1\nx=S=1\nx=dd=1\n# x\n]\n"));
  EXPECT_EQ(Dump(key), "\n");
}

TEST(RegistryNode, ResultIsTrueIfAnyKeyBelowHasAValueLine) {
  CRegistryNode key;
  EXPECT_FALSE(Restore(key, ""));
  EXPECT_FALSE(Restore(key, "\n"));
  EXPECT_FALSE(Restore(key, "[a]\n[b]\n\n\n\n"));
  EXPECT_TRUE(Restore(key, "[a]\n[b]\nx=s=\n\n\n[c]\n\n\n"));
}

TEST(RegistryNode, LastOfEqualNamesWins) {
  EXPECT_EQ(Reread("x=s=one\nx=d=2\nx=b=03\n"), "x=b=03 \n\n");
  EXPECT_EQ(Reread("x=s=one\n[x]\ny=d=1\n\n"), "[x]\ny=d=1\n\n\n");
  EXPECT_EQ(Reread("[x]\ny=d=1\n\nx=s=one\n"), "x=s=one\n\n");
  EXPECT_EQ(Reread("[x]\na=d=1\n\n[x]\nb=d=2\n\n"), "[x]\nb=d=2\n\n\n");
}

TEST(RegistryNode, RestoreMergesByNameAndReplacesWholeSubkeys) {
  CRegistryNode key;
  ASSERT_TRUE(Restore(key, "a=d=1\nc=d=3\n[K]\nold=d=1\n\n[L]\nkept=d=1\n\n"));
  ASSERT_TRUE(Restore(key, "b=d=2\nc=s=three\n[K]\nnew=d=2\n\nz=d=9\n"));
  EXPECT_EQ(Dump(key), "a=d=1\nb=d=2\nc=s=three\nz=d=9\n[K]\nnew=d=2\n\n[L]\nkept=d=1\n\n\n");
}

TEST(RegistryNode, MergeReplacesAKeyByAValueAndAValueByAKey) {
  CRegistryNode key;
  ASSERT_TRUE(Restore(key, "a=s=text\n[b]\n[deep]\nx=d=1\n\n\n"));
  ASSERT_TRUE(Restore(key, "b=s=text\n[a]\ny=d=2\n\n"));
  EXPECT_EQ(Dump(key), "b=s=text\n[a]\ny=d=2\n\n\n");
}

TEST(RegistryNode, KeysThatStayKeepTheirObject) {
  CRegistryNode key;
  ASSERT_TRUE(Restore(key, "[A]\nx=d=1\n[B]\ny=d=1\n[C]\n\n\n[Gone]\n\n\n"));
  CRegistryNode* a = NodeOf(key.Find("A")->value);
  CRegistryNode* b = NodeOf(a->Find("B")->value);
  ASSERT_TRUE(Restore(key, "[A]\n[B]\ny=d=2\n[New]\n\n\n[AA]\n\n\n"));
  EXPECT_EQ(Dump(key), "[A]\n[AA]\n\n[B]\ny=d=2\n[New]\n\n\n\n\n");
  EXPECT_EQ(NodeOf(key.Find("A")->value), a);
  EXPECT_EQ(NodeOf(a->Find("B")->value), b);
}

TEST(RegistryNode, StreamIsAfterTheClosingLine) {
  FILE* stream = tmpfile();
  fputs("x=d=1\n\ny=d=2\n\nrest", stream);
  rewind(stream);
  CRegistryNode first;
  CRegistryNode second;
  EXPECT_TRUE(first.restoreNode(stream));
  EXPECT_EQ(ftell(stream), 7);
  EXPECT_TRUE(second.restoreNode(stream));
  EXPECT_EQ(Dump(first), "x=d=1\n\n");
  EXPECT_EQ(Dump(second), "y=d=2\n\n");
  char rest[8] = {};
  EXPECT_EQ(fread(rest, 1, sizeof rest, stream), 4U);
  fclose(stream);
}

TEST(RegistryNode, PipeCanBeReadThoughItCannotSeek) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "x=d=1\n\nrest", 11), 11);
  close(ends[1]);
  FILE* stream = fdopen(ends[0], "r");
  CRegistryNode key;
  EXPECT_TRUE(key.restoreNode(stream));
  EXPECT_EQ(Dump(key), "x=d=1\n\n");
  fclose(stream);
}

TEST(RegistryNode, DeleteNodeKeepsNamesAndMayBeRepeated) {
  CRegistryNode key;
  ASSERT_TRUE(Restore(key, "a=s=x\nb=d=1\n[c]\n[d]\n\n\n"));
  const auto capacity = key.Capacity();
  key.deleteNode();
  ASSERT_EQ(key.Entries().size(), 3U);
  EXPECT_STREQ(key.Entries()[2].name, "c");
  EXPECT_EQ(key.Capacity(), capacity);
  EXPECT_EQ(Dump(key), "\n");
  key.deleteNode();
  key.Clear();
  EXPECT_TRUE(key.Entries().empty());
}

std::string NestedKeys(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "[k]\n";
  text += "x=d=1\n";
  return text + std::string(static_cast<std::size_t>(depth) + 1, '\n');
}

// No function may call itself here: each level of the file would need a stack frame.
TEST(RegistryNode, HundredThousandKeysDeepIsReadWrittenMergedAndDestroyed) {
  const std::string text = NestedKeys(100000);
  CRegistryNode key;
  EXPECT_TRUE(Restore(key, text));
  EXPECT_EQ(Dump(key), text);
  EXPECT_TRUE(Restore(key, text));  // over the existing tree
  EXPECT_EQ(Dump(key), text);
}

TEST(RegistryNode, BytesAbove127AreBytesLikeOthers) {
  const std::string text = "\xC3\x84=s=\xFF\xFE\n\xFF=d=1\n[\xE2\x82\xAC]\n\x80=s=\x7F\n\n\n";
  EXPECT_EQ(Reread(text), text);
}

// Every prefix of a file must be read without an error. The tree, written again, must make a file with the same tree.
TEST(RegistryNode, EveryPrefixOfAGoodFileIsRead) {
  const std::string text =
      std::string(kExample.substr(0, kExample.size() - 1)) + "[H2]\na=es=%X%\n[[b]\n=b=01 02 \n\n\n\n";
  for (std::size_t size = 0; size <= text.size(); ++size) {
    const std::string once = Reread(text.substr(0, size));
    EXPECT_EQ(Reread(once), once) << size;
  }
}

TEST(RegistryNode, FileWithAnyChangedByteIsRead) {
  const std::string text(kExample);
  for (std::size_t at = 0; at < text.size(); ++at) {
    for (const char byte : {'\0', '\n', '=', '[', ']', '\xFF', 'd'}) {
      std::string changed = text;
      changed[at] = byte;
      const std::string once = Reread(changed);
      EXPECT_EQ(Reread(once), once) << at << " " << static_cast<int>(byte);
    }
  }
}

}  // namespace
