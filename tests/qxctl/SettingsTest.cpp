// Tests qxctl registry set|delete|import|export|diff|lint and ini set|delete|copy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr char kTree[] =
    "[HKEY_LOCAL_MACHINE]\n"
    "[SOFTWARE]\n"
    "Blob=b=0a ff \n"
    "Count=d=-5\n"
    "Name=es=text\n"
    "[Sub]\n"
    "x=s=\n"
    "\n\n\n\n";
const std::string kKey = "HKEY_LOCAL_MACHINE/SOFTWARE";

// kTree with one line replaced by another.
std::string TreeWith(const std::string& line, const std::string& now) {
  std::string text = kTree;
  return text.replace(text.find(line), line.size(), now);
}

class QxctlRegistryEdit : public testing::Test, protected QxctlFixture {
 protected:
  QxctlRegistryEdit() { WriteFile(Dir().File("registry"), kTree); }
  Ran Run(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), "registry");
    return Qxctl(arguments, input);
  }
  Ran Edit(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--directory", "."});
    return Run(arguments);
  }
  std::string Registry() const { return ReadFile(Dir().File("registry")); }
  // Every file of the directory that the fixture has not made.
  std::multiset<std::string> Names() const {
    std::multiset<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Dir().Path())) {
      const std::string name = entry.path().filename();
      if (name != "Reports") names.insert(name.ends_with(".bak") ? "BACKUP" : name);
    }
    return names;
  }
};

class QxctlIniEdit : public testing::Test, protected QxctlFixture {
 protected:
  QxctlIniEdit() { WriteFile(Dir().File("a.ini"), kFile); }
  Ran Run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "ini");
    return Qxctl(arguments);
  }
  std::string File() const { return ReadFile(Dir().File("a.ini")); }

  static constexpr char kFile[] = "; head\n[One]\nkey = value ; note\n\n; about two\n[Two]\nx=1\n";
};

}  // namespace

// --- registry set

TEST_F(QxctlRegistryEdit, SetWithoutApplyPrintsTheChangeAndChangesNothing) {
  const Ran ran = Edit({"set", kKey, "Count", "7"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "HKEY_LOCAL_MACHINE/SOFTWARE:\n- Count=d=-5\n+ Count=d=7\n");
  EXPECT_EQ(ran.err, "qxctl: nothing was changed; --apply changes it\n");
  EXPECT_EQ(Registry(), kTree);
  EXPECT_EQ(Names(), (std::multiset<std::string>{"registry"}));
}

TEST_F(QxctlRegistryEdit, SetWithApplyChangesTheFileAndKeepsABackup) {
  const Ran ran = Edit({"set", kKey, "Count", "7", "--apply"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_THAT(ran.err, HasSubstr("the old file is kept in ./registry."));
  EXPECT_THAT(ran.err, HasSubstr("does not see the change before its restart"));
  EXPECT_EQ(Registry(), TreeWith("Count=d=-5", "Count=d=7"));
  EXPECT_EQ(Names(), (std::multiset<std::string>{"BACKUP", "registry"}));
}

TEST_F(QxctlRegistryEdit, WarningIsPrintedAlsoWithQuiet) {
  const Ran ran = Edit({"set", kKey, "Count", "7", "--apply", "--quiet"});
  EXPECT_EQ(ran.err,
            "qxctl: a running service does not see the change before its restart; if it saves its own registry "
            "before that, the change is lost\n");
}

TEST_F(QxctlRegistryEdit, TypeIsKeptUnlessOneIsGiven) {
  EXPECT_EQ(Edit({"set", kKey, "Name", "x"}).out, kKey + ":\n- Name=es=text\n+ Name=es=x\n");
  EXPECT_EQ(Edit({"set", kKey, "Name", "x", "--type", "string"}).out, kKey + ":\n- Name=es=text\n+ Name=s=x\n");
  EXPECT_EQ(Edit({"set", kKey, "New", "x"}).out, kKey + ":\n+ New=s=x\n");
  EXPECT_EQ(Edit({"set", kKey, "New", "0aFF", "--type", "binary"}).out, kKey + ":\n+ New=b=0a ff\n");
  EXPECT_EQ(Edit({"set", kKey, "New", "4294967295", "--type", "dword"}).out, kKey + ":\n+ New=d=-1\n");
  EXPECT_EQ(Edit({"set", kKey, "New", "0x1F", "--type", "DWORD"}).out, kKey + ":\n+ New=d=31\n");
  EXPECT_EQ(Run({"set", "--directory", ".", "--type", "dword", "--", kKey, "New", "-7"}).out, kKey + ":\n+ New=d=-7\n");
}

TEST_F(QxctlRegistryEdit, ValueThatDoesNotFitItsTypeIsAUsageError) {
  EXPECT_EQ(Edit({"set", kKey, "Count", "seven"}).code, 2);
  EXPECT_EQ(Edit({"set", kKey, "Count", "4294967296"}).code, 2);
  EXPECT_EQ(Edit({"set", kKey, "Blob", "0a f"}).code, 2);
  EXPECT_EQ(Edit({"set", kKey, "Blob", "xx"}).code, 2);
  EXPECT_EQ(Edit({"set", kKey, "Blob", "00", "--type", "link"}).code, 2);
  EXPECT_EQ(Registry(), kTree);
}

TEST_F(QxctlRegistryEdit, MissingKeysAreCreated) {
  EXPECT_EQ(Edit({"set", "HKEY_USERS\\a\\b", "v", "1", "--apply"}).out,
            "(root):\n+ [HKEY_USERS]\n\nHKEY_USERS:\n+ [a]\n\nHKEY_USERS/a:\n+ [b]\n\nHKEY_USERS/a/b:\n+ v=s=1\n");
  EXPECT_EQ(Edit({"get", "HKEY_USERS/a/b", "v"}).out, "1\n");
}

TEST_F(QxctlRegistryEdit, ValueThatDoesNotFitIntoTheFileIsRefused) {
  for (const char* const name : {"a=b", "a\nb"}) EXPECT_EQ(Edit({"set", kKey, name, "x", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"set", kKey, "v", "a\nb", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"set", kKey, "[v", "]", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"set", kKey + "/a]b", "v", "x", "--apply"}).code, 5);
  const Ran ran = Edit({"set", kKey, "v", std::string(1019, 'x'), "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("the file cannot store v in HKEY_LOCAL_MACHINE/SOFTWARE: its line would have 1023"));
  EXPECT_EQ(Registry(), kTree);
  EXPECT_EQ(Names(), (std::multiset<std::string>{"registry"}));
}

TEST_F(QxctlRegistryEdit, SubkeyIsNotReplacedByAValue) {
  EXPECT_EQ(Edit({"set", kKey, "Sub", "x", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"set", kKey + "/Count/Deep", "v", "x", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"set", "HKEY_LOCAL_MACHIN/SOFTWARE", "v", "x", "--apply"}).code, 5);
  EXPECT_EQ(Registry(), kTree);
}

TEST_F(QxctlRegistryEdit, SameValueChangesNothing) {
  EXPECT_EQ(Edit({"set", kKey, "Name", "text", "--apply"}).err, "qxctl: nothing to change: it is already so\n");
  EXPECT_EQ(Names(), (std::multiset<std::string>{"registry"}));
}

TEST_F(QxctlRegistryEdit, JsonHasThePlan) {
  EXPECT_EQ(json::parse(Edit({"set", kKey, "Count", "7", "--json"}).out),
            json::parse(R"({"file": "./registry", "changes": [
      {"key": "HKEY_LOCAL_MACHINE/SOFTWARE", "name": "Count", "before": {"type": "REG_DWORD", "value": -5},
       "after": {"type": "REG_DWORD", "value": 7}}], "allChanges": true, "applied": false, "backup": null})"));
  const json applied = json::parse(Edit({"set", kKey, "Count", "7", "--json", "--apply"}).out);
  EXPECT_EQ(applied["applied"], true);
  EXPECT_EQ(ReadFile(Dir().File(applied["backup"].get<std::string>())), kTree);
}

TEST_F(QxctlRegistryEdit, ModeAndOwnerAreKept) {
  ASSERT_EQ(chmod(Dir().File("registry").c_str(), 0600), 0);
  const json applied = json::parse(Edit({"set", kKey, "Count", "7", "--json", "--apply"}).out);
  for (const std::string& name : {std::string("registry"), applied["backup"].get<std::string>()}) {
    struct stat status = {};
    ASSERT_EQ(stat(Dir().File(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U) << name;
    EXPECT_EQ(status.st_uid, geteuid());
  }
}

TEST_F(QxctlRegistryEdit, SymbolicLinkIsChangedOnlyByForce) {
  std::filesystem::rename(Dir().File("registry"), Dir().File("real"));
  std::filesystem::create_symlink("real", Dir().File("registry"));
  EXPECT_EQ(Edit({"set", kKey, "Count", "7"}).code, 5);
  const Ran ran = Edit({"set", kKey, "Count", "7", "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("symbolic link"));
  EXPECT_EQ(ReadFile(Dir().File("real")), kTree);
  EXPECT_EQ(Edit({"set", kKey, "Count", "7", "--apply", "--force"}).code, 0);
  EXPECT_EQ(ReadFile(Dir().File("real")), TreeWith("Count=d=-5", "Count=d=7"));
  EXPECT_TRUE(std::filesystem::is_symlink(Dir().File("registry")));
}

TEST_F(QxctlRegistryEdit, FileWithLintFindingsIsChangedOnlyByForce) {
  WriteFile(Dir().File("registry"), std::string(kTree) + "[HKEY_USERS]\nlost=d=1\n");
  const Ran ran = Edit({"set", kKey, "Count", "7", "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("registry lint"));
  EXPECT_EQ(Edit({"set", kKey, "Count", "7", "--apply", "--force"}).code, 0);
  EXPECT_EQ(Registry(), TreeWith("Count=d=-5", "Count=d=7"));
}

TEST_F(QxctlRegistryEdit, LinesThatASaveDropsAreReported) {
  WriteFile(Dir().File("registry"), "a comment\n" + std::string(kTree));
  EXPECT_THAT(Edit({"set", kKey, "Count", "7"}).err, HasSubstr("a save drops lines that are not read"));
}

TEST_F(QxctlRegistryEdit, WithoutAGoodRegistryFileNothingIsSet) {
  std::filesystem::rename(Dir().File("registry"), Dir().File("registry.old"));
  EXPECT_EQ(Edit({"set", kKey, "Count", "7", "--apply"}).code, 4);
  WriteFile(Dir().File("registry"), "[HKEY_USERS]\n\n\n");
  const Ran ran = Edit({"set", kKey, "Count", "7", "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("does not load"));
}

TEST_F(QxctlRegistryEdit, OneEditAtATime) {
  const std::string path = Dir().File("registry.edit");
  WriteFile(path, "");
  FILE* const stream = std::fopen(path.c_str(), "r+e");
  ASSERT_NE(stream, nullptr);
  ASSERT_EQ(flock(fileno(stream), LOCK_EX), 0);
  const Ran ran = Edit({"set", kKey, "Count", "7", "--apply"});
  std::fclose(stream);
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("another qxctl"));
  EXPECT_EQ(Edit({"set", kKey, "Count", "7", "--apply"}).code, 0);
}

// --- registry delete

TEST_F(QxctlRegistryEdit, DeleteRemovesAValueAnEmptyKeyOrEverything) {
  EXPECT_EQ(Edit({"delete", kKey, "Count"}).out, kKey + ":\n- Count=d=-5\n");
  EXPECT_EQ(Edit({"delete", kKey + "/Sub", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"delete", kKey + "/Sub", "-r", "--apply"}).out, kKey + ":\n- [Sub]\n\n" + kKey + "/Sub:\n- x=s=\n");
  EXPECT_EQ(Registry(), TreeWith("[Sub]\nx=s=\n\n", ""));
  EXPECT_EQ(Edit({"delete", kKey, "Sub"}).code, 4);
  EXPECT_EQ(Edit({"delete", kKey, "count"}).code, 4);
  EXPECT_EQ(Edit({"delete", "HKEY_USERS", "v"}).code, 4);
}

TEST_F(QxctlRegistryEdit, LastValueIsNotDeleted) {
  const Ran ran = Edit({"delete", "HKEY_LOCAL_MACHINE", "-r", "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("no value is left"));
  EXPECT_EQ(Registry(), kTree);
}

// --- registry export, import, diff

TEST_F(QxctlRegistryEdit, ImportRestoresAnExport) {
  EXPECT_EQ(Edit({"export"}).out, kTree);
  EXPECT_EQ(Edit({"export", kKey + "/Sub", "sub"}).code, 0);
  EXPECT_EQ(ReadFile(Dir().File("sub")), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Sub]\nx=s=\n\n\n\n\n");
  EXPECT_EQ(Edit({"delete", kKey + "/Sub", "-r", "--apply"}).code, 0);
  EXPECT_EQ(Edit({"import", "sub", "--apply"}).code, 0);
  EXPECT_EQ(Registry(), kTree);
}

TEST_F(QxctlRegistryEdit, ImportMergesUnlessAKeyIsReplaced) {
  WriteFile(Dir().File("part"), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nCount=d=7\n\n\n\n");
  EXPECT_EQ(Edit({"import", "part"}).out, kKey + ":\n- Count=d=-5\n+ Count=d=7\n");
  EXPECT_EQ(Edit({"import", "part", "--replace", kKey, "--apply"}).code, 0);
  EXPECT_EQ(Registry(), ReadFile(Dir().File("part")));
  EXPECT_EQ(Edit({"import", "part", "--replace", "HKEY_USERS"}).code, 4);
}

TEST_F(QxctlRegistryEdit, ImportOfAFullExportRestoresTheRegistry) {
  WriteFile(Dir().File("backup"), kTree);
  for (const char* const broken : {"", "[HKEY_USERS]\n\n\n"}) {
    WriteFile(Dir().File("registry"), broken);
    EXPECT_EQ(Edit({"import", "backup", "--apply"}).code, 5);
    EXPECT_EQ(Edit({"import", "backup", "--replace", "", "--apply"}).code, 0);
    EXPECT_EQ(Registry(), kTree);
  }
  std::filesystem::remove(Dir().File("registry"));
  EXPECT_EQ(Edit({"import", "backup", "--replace", "", "--apply"}).code, 0);
  EXPECT_EQ(Registry(), kTree);
}

TEST_F(QxctlRegistryEdit, FileThatWouldBeMisreadIsNotImported) {
  WriteFile(Dir().File("bad"), "[HKEY_USERS]\na=d=1\n\n\n[HKEY_LOCAL_MACHINE]\nlost=d=1\n");
  EXPECT_EQ(Edit({"import", "bad", "--apply"}).code, 5);
  WriteFile(Dir().File("none"), "no registry\n");
  EXPECT_EQ(Edit({"import", "none", "--apply"}).code, 5);
  EXPECT_EQ(Edit({"import", "missing", "--apply"}).code, 4);
}

TEST_F(QxctlRegistryEdit, DiffComparesFilesOrAFileWithTheRegistry) {
  WriteFile(Dir().File("other"), TreeWith("Count=d=-5", "Count=d=7"));
  const Ran ran = Edit({"diff", "other"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, kKey + ":\n- Count=d=7\n+ Count=d=-5\n");
  EXPECT_EQ(Run({"diff", "registry", "other"}).out, kKey + ":\n- Count=d=-5\n+ Count=d=7\n");
  EXPECT_EQ(Run({"diff", "-", "other"}, kTree).code, 1);
  EXPECT_EQ(Run({"diff", "-", "registry"}, kTree).code, 0);
  EXPECT_EQ(Run({"diff", "-", "-"}, kTree).code, 2);
  EXPECT_EQ(Run({"diff", "registry", "nothing"}).code, 4);
  EXPECT_EQ(json::parse(Run({"diff", "registry", "other", "--json"}).out)["changes"].size(), 1U);
}

// --- registry lint

TEST_F(QxctlRegistryEdit, LintPrintsNothingForAGoodFile) {
  const Ran ran = Edit({"lint"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out + ran.err, "");
}

TEST_F(QxctlRegistryEdit, LintPrintsLineRuleSeverityAndFix) {
  WriteFile(Dir().File("odd"), "a comment\n" + std::string(kTree));
  const Ran ran = Run({"lint", "--file", "odd"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out,
            "odd:1: warning: no-value: the line has no \"=\" and is not read\n    remove the line; the next save "
            "removes it, too\n");
  EXPECT_EQ(ran.err, "qxctl: 0 error(s), 1 warning(s)\n");
  const json document = json::parse(Run({"lint", "--file", "odd", "--json"}).out);
  EXPECT_EQ(document["findings"][0]["rule"], "no-value");
  EXPECT_EQ(document["warnings"], 1);
  EXPECT_EQ(Run({"lint", "--file", "nothing"}).code, 4);
}

// --- ini

TEST_F(QxctlIniEdit, SetWithoutApplyPrintsTheChangeAndChangesNothing) {
  const Ran ran = Run({"set", "a.ini", "One", "key", "new"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "[One]\n- key=value\n+ key=new\n");
  EXPECT_EQ(ran.err, "qxctl: nothing was changed; --apply changes it\n");
  EXPECT_EQ(File(), kFile);
}

TEST_F(QxctlIniEdit, SetWithApplyChangesOneLine) {
  ASSERT_EQ(chmod(Dir().File("a.ini").c_str(), 0600), 0);
  EXPECT_EQ(Run({"set", "a.ini", "One", "key", "new", "--apply"}).code, 0);
  EXPECT_EQ(File(), "; head\n[One]\nkey = new ; note\n\n; about two\n[Two]\nx=1\n");
  struct stat status = {};
  ASSERT_EQ(stat(Dir().File("a.ini").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_FALSE(Exists(Dir().File("a.ini.edit")));
}

TEST_F(QxctlIniEdit, LastLineWithoutLineFeedIsCompletedWithANote) {
  WriteFile(Dir().File("a.ini"), "[S]\na=1");
  const Ran ran = Run({"set", "a.ini", "S", "b", "2", "--apply"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_THAT(ran.err, HasSubstr("line feed"));
  EXPECT_EQ(File(), "[S]\na=1\nb=2\n");
}

TEST_F(QxctlIniEdit, ValueThatTheSyntaxCannotHoldIsRefused) {
  const Ran ran = Run({"set", "a.ini", "One", "key", "a;b", "--apply"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("begins a comment"));
  WriteFile(Dir().File("long.ini"), "[S]\n;" + std::string(1023, 'x') + "\n");
  EXPECT_EQ(Run({"set", "long.ini", "S", "k", "v", "--apply"}).code, 5);
  EXPECT_EQ(File(), kFile);
}

TEST_F(QxctlIniEdit, DeleteRemovesAKeyOrASection) {
  EXPECT_EQ(Run({"delete", "a.ini", "One", "key"}).out, "[One]\n- key=value\n");
  EXPECT_EQ(Run({"delete", "a.ini", "One", "--apply"}).out, "- [One]\n- key=value\n");
  EXPECT_EQ(File(), "; head\n\n; about two\n[Two]\nx=1\n");
  EXPECT_EQ(Run({"delete", "a.ini", "One"}).code, 4);
  EXPECT_EQ(Run({"delete", "a.ini", "Two", "y"}).code, 4);
}

TEST_F(QxctlIniEdit, CopyWritesTheEntriesToAnotherSectionOrFile) {
  EXPECT_EQ(Run({"copy", "a.ini", "One", "Three", "--apply"}).code, 0);
  EXPECT_EQ(File(), std::string(kFile) + "\n[Three]\n\nkey=value\n");
  EXPECT_EQ(Run({"copy", "a.ini", "Two", "--to", "b.ini", "--apply"}).code, 4);
  EXPECT_EQ(Run({"copy", "a.ini", "Two", "--to", "b.ini", "--apply", "--create"}).code, 0);
  EXPECT_EQ(ReadFile(Dir().File("b.ini")), "\n[Two]\n\nx=1\n");
  EXPECT_EQ(Run({"copy", "a.ini", "Two"}).code, 2);
  EXPECT_EQ(Run({"copy", "a.ini", "Four", "Five"}).code, 4);
}

TEST_F(QxctlIniEdit, MissingFileIsCreatedOnlyOnRequest) {
  const Ran ran = Run({"set", "none.ini", "S", "k", "v", "--apply"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("--create"));
  EXPECT_EQ(Run({"set", "none.ini", "S", "k", "v", "--create"}).code, 0);
  EXPECT_FALSE(Exists(Dir().File("none.ini")));
  EXPECT_EQ(Run({"set", "none.ini", "S", "k", "v", "--create", "--apply"}).code, 0);
  EXPECT_EQ(ReadFile(Dir().File("none.ini")), "\n[S]\n\nk=v\n");
}

TEST_F(QxctlIniEdit, JsonHasThePlan) {
  EXPECT_EQ(
      json::parse(Run({"set", "a.ini", "One", "key", "new", "--json"}).out),
      json::parse(R"({"file": "a.ini", "changes": [{"section": "One", "key": "key", "before": "value", "after": "new"}],
                            "completesLastLine": false, "applied": false})"));
}

TEST_F(QxctlIniEdit, SymbolicLinkIsChangedOnlyByForce) {
  std::filesystem::rename(Dir().File("a.ini"), Dir().File("real.ini"));
  std::filesystem::create_symlink("real.ini", Dir().File("a.ini"));
  EXPECT_EQ(Run({"set", "a.ini", "One", "key", "new", "--apply"}).code, 5);
  EXPECT_EQ(Run({"set", "a.ini", "One", "key", "new", "--apply", "--force"}).code, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(Dir().File("a.ini")));
  EXPECT_THAT(ReadFile(Dir().File("real.ini")), HasSubstr("key = new ; note"));
}

}  // namespace qx::test
