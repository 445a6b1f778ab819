// Tests qxctl registry ls|get and ini list|get: they show the configuration and do not change it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

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
    "Empty=b=\n"
    "Home=es=%QX_PLACE%/x\n"
    "Name=s=some \x01text\n"
    "[Sub]\n"
    "x=s=\n"
    "\n\n\n\n";

class QxctlRegistry : public testing::Test, protected QxctlFixture {
 protected:
  QxctlRegistry() { WriteFile(Dir().File("registry"), kTree); }
  Ran Run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "registry");
    arguments.insert(arguments.end(), {"--directory", Dir().Path()});
    return Qxctl(arguments);
  }
};

class QxctlIni : public testing::Test, protected QxctlFixture {
 protected:
  QxctlIni() {
    WriteFile(Dir().File("a.ini"), "; head\n[One]\nkey = value ; note\nempty=\nkey=second\n\n[Two]\nx=1\n");
  }
};

}  // namespace

TEST_F(QxctlRegistry, LsPrintsValuesAndSubkeysInTheFilesNotation) {
  const Ran ran = Run({"ls", "HKEY_LOCAL_MACHINE/SOFTWARE"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, "Blob=b=0a ff\nCount=d=-5\nEmpty=b=\nHome=es=%QX_PLACE%/x\nName=s=some \\x01text\n[Sub]\n");
  EXPECT_EQ(ran.err, "");
}

TEST_F(QxctlRegistry, LsWithoutAKeyListsTheHivesThatExist) { EXPECT_EQ(Run({"ls"}).out, "[HKEY_LOCAL_MACHINE]\n"); }

TEST_F(QxctlRegistry, BothSeparatorsLeadToAKey) {
  EXPECT_EQ(Run({"ls", "HKEY_LOCAL_MACHINE\\SOFTWARE/Sub"}).out, "x=s=\n");
  EXPECT_EQ(Run({"ls", "HKEY_LOCAL_MACHINE/SOFTWARE/Sub/"}).out, "x=s=\n");
}

TEST_F(QxctlRegistry, RecursionVisitsKeysInTheFilesOrder) {
  EXPECT_EQ(Run({"ls", "-r"}).out,
            "(root):\n[HKEY_LOCAL_MACHINE]\n\n"
            "HKEY_LOCAL_MACHINE:\n[SOFTWARE]\n\n"
            "HKEY_LOCAL_MACHINE/SOFTWARE:\n"
            "Blob=b=0a ff\nCount=d=-5\nEmpty=b=\nHome=es=%QX_PLACE%/x\nName=s=some \\x01text\n[Sub]\n\n"
            "HKEY_LOCAL_MACHINE/SOFTWARE/Sub:\nx=s=\n\n");
}

TEST_F(QxctlRegistry, DeepTreeIsListed) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "[k]\n";
  WriteFile(Dir().File("registry"), text + "v=d=1\n");
  const Ran ran = Run({"ls", "-r", "--json"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(json::parse(ran.out)["keys"].size(), 1001U);
}

TEST_F(QxctlRegistry, LsAsJsonHasTypesAndValues) {
  const json keys = json::parse(Run({"ls", "HKEY_LOCAL_MACHINE/SOFTWARE", "--json"}).out)["keys"];
  EXPECT_EQ(keys, json::parse(R"([{"key": "HKEY_LOCAL_MACHINE/SOFTWARE", "values": [
      {"name": "Blob", "type": "REG_BINARY", "value": "0a ff"},
      {"name": "Count", "type": "REG_DWORD", "value": -5},
      {"name": "Empty", "type": "REG_BINARY", "value": ""},
      {"name": "Home", "type": "REG_EXPAND_SZ", "value": "%QX_PLACE%/x"},
      {"name": "Name", "type": "REG_SZ", "value": "some \u0001text"}],
      "subkeys": [{"name": "Sub"}]}])"));
}

TEST_F(QxctlRegistry, GetPrintsOneValue) {
  const std::string key = "HKEY_LOCAL_MACHINE/SOFTWARE";
  EXPECT_EQ(Run({"get", key, "Count"}).out, "-5\n");
  EXPECT_EQ(Run({"get", key, "Blob"}).out, "0a ff\n");
  EXPECT_EQ(Run({"get", key, "Empty"}).out, "\n");
  EXPECT_EQ(Run({"get", key, "Name"}).out, "some \\x01text\n");
  EXPECT_EQ(json::parse(Run({"get", key, "Count", "--json"}).out),
            json({{"key", key}, {"name", "Count"}, {"type", "REG_DWORD"}, {"value", -5}}));
}

TEST_F(QxctlRegistry, GetExpandsOnlyOnRequest) {
  const ScopedEnv place("QX_PLACE", "/home/a");
  EXPECT_EQ(Run({"get", "HKEY_LOCAL_MACHINE/SOFTWARE", "Home"}).out, "%QX_PLACE%/x\n");
  EXPECT_EQ(Run({"get", "HKEY_LOCAL_MACHINE/SOFTWARE", "Home", "--expand"}).out, "/home/a/x\n");
  const ScopedEnv nowhere("QX_PLACE", nullptr);
  EXPECT_EQ(Run({"get", "HKEY_LOCAL_MACHINE/SOFTWARE", "Home", "--expand"}).out, "/x\n");
}

TEST_F(QxctlRegistry, MissingKeyValueOrRegistryIsNotFound) {
  EXPECT_EQ(Run({"ls", "HKEY_USERS"}).code, 4);
  EXPECT_EQ(Run({"ls", "HKEY_LOCAL_MACHINE/SOFTWARE/Name"}).code, 4);  // a value is not a key
  EXPECT_EQ(Run({"get", "HKEY_LOCAL_MACHINE/SOFTWARE", "name"}).code, 4);
  EXPECT_EQ(Run({"get", "HKEY_LOCAL_MACHINE/SOFTWARE", "Sub"}).code, 4);
  std::filesystem::remove(Dir().File("registry"));
  const Ran ran = Run({"ls"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("there is no registry in " + Dir().Path()));
}

TEST_F(QxctlRegistry, FallbackIsNamed) {
  std::filesystem::rename(Dir().File("registry"), Dir().File("registry.old"));
  const Ran ran = Run({"ls"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "[HKEY_LOCAL_MACHINE]\n");
  EXPECT_EQ(ran.err, "qxctl: the registry comes from " + Dir().Path() + "/registry.old\n");
}

TEST_F(QxctlRegistry, OneFileCanBeReadAlone) {
  std::filesystem::rename(Dir().File("registry"), Dir().File("backup"));
  EXPECT_EQ(Qxctl({"registry", "get", "HKEY_LOCAL_MACHINE/SOFTWARE", "Count", "--file", "backup"}).out, "-5\n");
  EXPECT_EQ(Qxctl({"registry", "ls", "--file", "nothing"}).code, 4);
  EXPECT_EQ(Qxctl({"registry", "ls", "--file", "backup", "--directory", "."}).code, 2);
}

TEST_F(QxctlRegistry, ReadingLeavesTheDirectoryUnchanged) {
  (void)Run({"ls", "-r"});
  (void)Run({"get", "HKEY_LOCAL_MACHINE/SOFTWARE", "Count"});
  EXPECT_EQ(ReadFile(Dir().File("registry")), kTree);
  EXPECT_FALSE(Exists(Dir().File("registry.old")));
  EXPECT_FALSE(Exists(Dir().File("registry.new")));
}

TEST_F(QxctlIni, ListPrintsTheSectionsOrTheEntriesOfOne) {
  EXPECT_EQ(Qxctl({"ini", "list", "a.ini"}).out, "[One]\n[Two]\n");
  EXPECT_EQ(Qxctl({"ini", "list", "a.ini", "Two"}).out, "x=1\n");
}

TEST_F(QxctlIni, HyphenIsStandardInput) {
  EXPECT_EQ(Qxctl({"ini", "list", "-"}, "[S]\nx=1\n").out, "[S]\n");
  EXPECT_EQ(Qxctl({"ini", "get", "-", "S", "x"}, "[S]\nx=1\n").out, "1\n");
  EXPECT_EQ(Qxctl({"ini", "get", "-", "T", "x"}, "[S]\nx=1\n").err,
            "qxctl: standard input has no section [T]; names are case-sensitive\n");
  EXPECT_EQ(json::parse(Qxctl({"ini", "list", "-", "--json"}, "[S]\n").out)["file"], "-");
}

TEST_F(QxctlIni, ValuesAreThoseThatAReaderGets) {
  EXPECT_EQ(Qxctl({"ini", "list", "a.ini", "One"}).out, "key=value\nempty=\nkey=value\n");
  EXPECT_EQ(Qxctl({"ini", "get", "a.ini", "One", "key"}).out, "value\n");
  EXPECT_EQ(Qxctl({"ini", "get", "a.ini", "One", "empty"}).out, "\n");
}

TEST_F(QxctlIni, JsonHasTheSameEntriesAsTheText) {
  EXPECT_EQ(json::parse(Qxctl({"ini", "list", "a.ini", "--json"}).out),
            json::parse(R"({"file": "a.ini", "sections": [{"section": "One"}, {"section": "Two"}]})"));
  EXPECT_EQ(json::parse(Qxctl({"ini", "list", "a.ini", "Two", "--json"}).out),
            json::parse(R"({"file": "a.ini", "section": "Two", "entries": [{"key": "x", "value": "1"}]})"));
  EXPECT_EQ(json::parse(Qxctl({"ini", "get", "a.ini", "Two", "x", "--json"}).out),
            json::parse(R"({"file": "a.ini", "section": "Two", "key": "x", "value": "1"})"));
}

TEST_F(QxctlIni, MissingFileSectionOrKeyIsNamed) {
  EXPECT_EQ(Qxctl({"ini", "list", "none.ini"}).code, 4);
  EXPECT_EQ(Qxctl({"ini", "list", "a.ini", "one"}).code, 4);
  EXPECT_EQ(Qxctl({"ini", "get", "a.ini", "One", "Key"}).code, 4);
  EXPECT_EQ(Qxctl({"ini", "get", "a.ini", "One"}).code, 2);
  const Ran directory = Qxctl({"ini", "list", "."});
  EXPECT_EQ(directory.code, 6);
  EXPECT_THAT(directory.err, HasSubstr("cannot open ."));
}

TEST_F(QxctlIni, LongListIsComplete) {
  std::string text = "[S]\n";
  for (int i = 0; i < 200; ++i) text += std::string(1000, 'k') + "=" + std::to_string(i) + "\n";
  WriteFile(Dir().File("long.ini"), text);
  EXPECT_EQ(json::parse(Qxctl({"ini", "list", "long.ini", "S", "--json"}).out)["entries"].size(), 200U);
}

}  // namespace qx::test
