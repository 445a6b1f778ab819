// Rebuilds the worked examples of docs/ini-files.md.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "inifile/IniFile.h"
#include "tests/support/Support.h"

namespace {

std::string Example(const std::string& name) { return qx::test::DocExample("ini-files.md", name); }

// The text of an example between the line "--- TITLE" and the next such line.
std::string Block(const std::string& example, const std::string& title) {
  const std::string mark = "--- " + title + "\n";
  const std::size_t begin = example.find(mark);
  if (begin == std::string::npos) return "no block " + title;
  const std::size_t end = example.find("--- ", begin + mark.size());
  return example.substr(begin + mark.size(), end - begin - mark.size());
}

// The names with ", " between them. A name with blanks at its ends is in quotation marks.
std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += text.empty() ? "" : ", ";
    text += name.starts_with(' ') ? "\"" + name + "\"" : name;
  }
  return text + "\n";
}

class IniFileExample : public testing::Test {
 protected:
  // Adds a step of the example: its title, and the whole file after it.
  void Step(const std::string& title, bool result) {
    EXPECT_TRUE(result) << title;
    rebuilt_ += "--- " + title + "\n" + qx::test::ReadFile(path_);
  }

  void Start(const std::string& example) {
    qx::test::WriteFile(path_, Block(example, "file"));
    Step("file", ini_.Open(path_.c_str(), true));
  }

  qx::test::TempDir dir_;
  const std::string path_ = dir_.File("profile.ini");
  CIniFile ini_;
  std::string rebuilt_;
};

TEST_F(IniFileExample, FileReadsAsDocumented) {
  Start(Example("ini-read"));
  std::vector<std::string> names;
  EXPECT_TRUE(ini_.GetSections(names));
  rebuilt_ += "--- section names\n" + Joined(names);
  names.clear();
  EXPECT_TRUE(ini_.GetEnums(names, "Sec"));
  rebuilt_ += "--- keys of Sec\n" + Joined(names);
  rebuilt_ += "--- values of Sec, with the default \"-\"\n";
  for (const std::string key : {"key", "indented", "list", "empty", "twice", "late", "Key"}) {
    rebuilt_ += key + std::string(9 - key.size(), ' ') + "=> " + ini_.GetString("Sec", key.c_str(), "-") + "\n";
  }
  EXPECT_EQ(rebuilt_, Example("ini-read"));
}

TEST_F(IniFileExample, NewFileIsWrittenAsDocumented) {
  ASSERT_TRUE(ini_.Open(path_.c_str(), false));
  Step("no file, then SetString(\"Sec\", \"key\", \"value\")", ini_.SetString("Sec", "key", "value"));
  Step("SetNumber(\"Sec\", \"count\", -5)", ini_.SetNumber("Sec", "count", -5));
  Step("SetString(\"Other\", \"key\", \"\")", ini_.SetString("Other", "key", ""));
  rebuilt_ += "--- HexDump\n" + qx::test::HexDump(qx::test::ReadFile(path_));
  EXPECT_EQ(rebuilt_, Example("ini-write"));
}

TEST_F(IniFileExample, FileIsEditedAsDocumented) {
  Start(Example("ini-edit"));
  Step("SetString(\"A\", \"second\", \"two\")", ini_.SetString("A", "second", "two"));
  Step("SetString(\"A\", \"fourth\", \"4\")", ini_.SetString("A", "fourth", "4"));
  Step("SetString(\"A\", \"first\", \"one\")", ini_.SetString("A", "first", "one"));
  EXPECT_EQ(rebuilt_, Example("ini-edit"));
}

TEST_F(IniFileExample, KeysAndSectionsAreDeletedAsDocumented) {
  Start(Example("ini-delete"));
  Step("DeleteKey(\"A\", \"second\")", ini_.DeleteKey("A", "second"));
  Step("DeleteSection(\"B\")", ini_.DeleteSection("B"));
  Step("DeleteKey(\"A\", \"first\")", ini_.DeleteKey("A", "first"));
  Step("DeleteSection(\"C\")", ini_.DeleteSection("C"));
  EXPECT_EQ(rebuilt_, Example("ini-delete"));
}

}  // namespace
