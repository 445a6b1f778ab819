// Tests planned edits of profile files.
#include "inifile/tools/ProfileEdit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "inifile/tools/ProfileText.h"
#include "tests/inifile/MemoryFile.h"
#include "tests/support/Support.h"

namespace qx::inifile {

namespace {

using testing::HasSubstr;

constexpr char kFile[] =
    "; head\n"
    "[A]\n"
    "first=1\n"
    "\n"
    "; about second\n"
    "second = 2 ; note\n"
    "  indented=3\n"
    "no equals sign\n"
    "\n"
    "; about B\n"
    "[B]\n"
    "key=b\n";

ProfileRequest Set(const std::string& section, const std::string& key, const std::string& value) {
  return {.section = section, .key = {}, .entries = {{key, value}}};
}
ProfileRequest DeleteKey(const std::string& section, const std::string& key) {
  return {.kind = ProfileRequest::Kind::kDeleteKey, .section = section, .key = key, .entries = {}};
}
ProfileRequest DeleteSection(const std::string& section) {
  return {.kind = ProfileRequest::Kind::kDeleteSection, .section = section, .key = {}, .entries = {}};
}

// The file after an edit that must succeed. The result of the class must be the planned text.
std::string After(const std::string& text, const ProfileRequest& request) {
  const ProfilePlan plan = PlanEdit(text, request);
  EXPECT_EQ(plan.state, ProfileState::kDone) << plan.reason;
  const qx::test::MemoryFile file;
  file.Write(text);
  EXPECT_EQ(ApplyPlan(plan, text, file.Path()), "");
  EXPECT_EQ(file.Read(), plan.text);
  return plan.text;
}

std::string With(std::string text, const std::string& old, const std::string& now) {
  return text.replace(text.find(old), old.size(), now);
}

std::string Reason(const std::string& text, const ProfileRequest& request) {
  const ProfilePlan plan = PlanEdit(text, request);
  EXPECT_EQ(plan.state, ProfileState::kRefused);
  return plan.reason;
}

}  // namespace

TEST(ProfileEdit, ChangedValueKeepsBlanksAndComments) {
  EXPECT_EQ(After(kFile, Set("A", "second", "two")), With(kFile, "second = 2 ; note", "second = two ; note"));
  EXPECT_EQ(After(kFile, Set("A", "first", "")), With(kFile, "first=1", "first="));
  EXPECT_EQ(After("[S]\nempty =; note\n", Set("S", "empty", "x")), "[S]\nempty =x; note\n");
}

TEST(ProfileEdit, IndentedEntryIsChangedWhereReadersFindIt) {
  EXPECT_EQ(After(kFile, Set("A", "indented", "x")), With(kFile, "  indented=3", "  indented=x"));
  EXPECT_EQ(After("  [S]\n  k=1\n", Set("S", "k", "2")), "  [S]\n  k=2\n");
}

TEST(ProfileEdit, NewKeyIsAddedAfterTheLastLineOfItsSection) {
  EXPECT_EQ(After(kFile, Set("A", "new", "x")), With(kFile, "no equals sign\n", "no equals sign\nnew=x\n"));
  EXPECT_EQ(After("[S]\n\n\n; end\n", Set("S", "k", "v")), "[S]\nk=v\n\n\n; end\n");
}

TEST(ProfileEdit, NewSectionIsAppendedAsByTheClass) {
  EXPECT_EQ(After(kFile, Set("C", "k", "v")), std::string(kFile) + "\n[C]\n\nk=v\n");
  EXPECT_EQ(After("", Set("C", "k", "v")), "\n[C]\n\nk=v\n");
}

TEST(ProfileEdit, FirstOfRepeatedKeysAndSectionsIsChanged) {
  EXPECT_EQ(After("[S]\nk=1\nk=2\n[S]\nk=3\n", Set("S", "k", "x")), "[S]\nk=x\nk=2\n[S]\nk=3\n");
}

TEST(ProfileEdit, LastLineWithoutLineFeedIsCompletedFirst) {
  EXPECT_EQ(After("[S]\na=1", Set("S", "b", "2")), "[S]\na=1\nb=2\n");
  EXPECT_EQ(After("[S]\na=1", Set("S", "a", "2")), "[S]\na=2\n");
  EXPECT_EQ(After("[S]", Set("S", "a", "1")), "[S]\na=1\n");
  EXPECT_EQ(After("[S]\na=1", Set("T", "a", "1")), "[S]\na=1\n\n[T]\n\na=1\n");
  EXPECT_TRUE(PlanEdit("[S]\na=1", Set("S", "b", "2")).completes_last_line);
  EXPECT_FALSE(PlanEdit("[S]\na=1\n", Set("S", "b", "2")).completes_last_line);
}

TEST(ProfileEdit, LinesThatEndWithCarriageReturnsKeepThem) {
  EXPECT_EQ(After("[S]\r\na=1\r\n", Set("S", "a", "2")), "[S]\r\na=2\r\n");
  EXPECT_EQ(After("[S]\r\na=1\r\n", Set("S", "b", "2")), "[S]\r\na=1\r\nb=2\r\n");
}

TEST(ProfileEdit, SameValueIsNotAChange) {
  const ProfilePlan plan = PlanEdit(kFile, Set("A", "second", "2"));
  EXPECT_EQ(plan.state, ProfileState::kDone);
  EXPECT_TRUE(plan.changes.empty());
  EXPECT_EQ(plan.text, kFile);
}

TEST(ProfileEdit, DeletedKeyLosesEveryEntryAndNoComment) {
  EXPECT_EQ(After(kFile, DeleteKey("A", "second")), With(kFile, "second = 2 ; note\n", ""));
  EXPECT_EQ(After("[S]\nk=1\n; c\nk=2\nl=3\n[S]\nk=4\n", DeleteKey("S", "k")), "[S]\n; c\nl=3\n[S]\nk=4\n");
}

TEST(ProfileEdit, EverySectionOfTheNameIsDeleted) {
  EXPECT_EQ(After("[S]\na=1\n\n; T\n[T]\nb=1\n\n[S]\na=2\n", DeleteSection("S")), "\n; T\n[T]\nb=1\n");
}

TEST(ProfileEdit, DeletedSectionLeavesTheCommentsAroundIt) {
  EXPECT_EQ(After(kFile, DeleteSection("A")), "; head\n\n; about B\n[B]\nkey=b\n");
  EXPECT_EQ(After("[A]\na=1\n\n[B]\nb=1\n", DeleteSection("B")), "[A]\na=1\n");
  EXPECT_EQ(After("[A]\na=1\n  [B]\nb=1\n", DeleteSection("A")), "  [B]\nb=1\n");
}

TEST(ProfileEdit, MissingKeyOrSectionIsNotFound) {
  EXPECT_EQ(PlanEdit(kFile, DeleteKey("A", "third")).state, ProfileState::kNoKey);
  EXPECT_EQ(PlanEdit(kFile, DeleteKey("C", "k")).state, ProfileState::kNoSection);
  EXPECT_EQ(PlanEdit(kFile, DeleteSection("a")).state, ProfileState::kNoSection);
}

TEST(ProfileEdit, SeveralEntriesAreSetInOneEdit) {
  ProfileRequest request = Set("B", "key", "x");
  request.entries.push_back({"more", "y"});
  EXPECT_EQ(After(kFile, request), With(kFile, "key=b\n", "key=x\nmore=y\n"));
}

TEST(ProfileEdit, ValueThatTheSyntaxCannotHoldIsRefused) {
  EXPECT_THAT(Reason(kFile, Set("A", "k", "a;b")), HasSubstr("comment"));
  EXPECT_THAT(Reason(kFile, Set("A", "k", "a\nb")), HasSubstr("line feed"));
  EXPECT_THAT(Reason(kFile, Set("A", "k", " a")), HasSubstr("blanks"));
  EXPECT_THAT(Reason(kFile, Set("A", "k", "a\r")), HasSubstr("blanks"));
  EXPECT_THAT(Reason(kFile, Set("A", "k=l", "a")), HasSubstr("\"=\""));
  EXPECT_THAT(Reason(kFile, Set("A", "[k", "a")), HasSubstr("header"));
  EXPECT_THAT(Reason(kFile, Set("A", "", "a")), HasSubstr("key"));
  EXPECT_THAT(Reason(kFile, Set("A", "k ", "a")), HasSubstr("blanks"));
  EXPECT_THAT(Reason(kFile, Set("A]", "k", "a")), HasSubstr("\"]\""));
  EXPECT_THAT(Reason(kFile, Set("", "k", "a")), HasSubstr("name"));
  EXPECT_THAT(Reason(kFile, Set("A", "k", std::string("a\0b", 3))), HasSubstr("NUL"));
}

TEST(ProfileEdit, EntryMayFillTheBufferButNotExceedIt) {
  EXPECT_EQ(PlanEdit(kFile, Set("B", "key", std::string(1019, 'x'))).state, ProfileState::kDone);
  (void)After(kFile, Set("B", "key", std::string(1019, 'x')));
  EXPECT_THAT(Reason(kFile, Set("B", "key", std::string(1020, 'x'))), HasSubstr("1024 characters"));
  EXPECT_THAT(Reason("[S]\nk=1 ;" + std::string(1000, 'c') + "\n", Set("S", "k", std::string(30, 'x'))),
              HasSubstr("at most 1023"));
}

TEST(ProfileEdit, FileWithLongLinesOrNulsIsNotEdited) {
  EXPECT_THAT(Reason("[S]\n;" + std::string(1023, 'x') + "\nk=1\n", Set("S", "k", "2")), HasSubstr("line 2 has 1024"));
  EXPECT_THAT(Reason(std::string("[S]\nk=\0\n", 8), Set("S", "k", "2")), HasSubstr("NUL"));
}

TEST(ProfileEdit, ListThatWouldBecomeUnreadableIsRefused) {
  std::string text = "[S]\n";
  for (int i = 0; i < 64; ++i) text += std::string(1000, static_cast<char>('A' + i % 26)) + std::to_string(i) + "=1\n";
  EXPECT_EQ(PlanEdit(text, Set("S", "k", "1")).state, ProfileState::kDone);
  EXPECT_THAT(Reason(text, Set("S", std::string(400, 'k'), "1")), HasSubstr("64,509"));
}

TEST(ProfileEdit, FileThatChangedSinceItWasReadIsNotEdited) {
  const qx::test::MemoryFile file;
  file.Write("[S]\nk=2\n");
  EXPECT_NE(ApplyPlan(PlanEdit("[S]\nk=1\n", Set("S", "k", "3")), "[S]\nk=1\n", file.Path()), "");
  EXPECT_EQ(file.Read(), "[S]\nk=2\n");
}

TEST(ProfileEdit, DryRunReturnsTheResultOfTheEdit) {
  const ProfilePlan plan = PlanEdit(kFile, Set("A", "second", "two"));
  EXPECT_EQ(TryPlan(plan, kFile), "");
  ProfilePlan wrong = plan;
  wrong.text += "x";
  EXPECT_THAT(TryPlan(wrong, kFile), HasSubstr("not as planned"));
}

// --- at random

namespace {

std::string Pick(std::mt19937_64& random, const std::vector<std::string>& texts) {
  return texts[random() % texts.size()];
}

std::string RandomFile(std::mt19937_64& random) {
  static const std::vector<std::string> kLines = {
      "[S]\n",   "[T]\n",   "  [S]\n", "[S] text\n", "[S;x]\n", "[ S]\n", "[]\n",        "[a]b]\n",      "k=1\n",
      "l = 2\n", " k=3\n",  "k=;c\n",  "k\t=4;c\n",  "=5\n",    "; c\n",  "  ; c\n",     "\n",           " \n",
      "text\n",  "a;k=6\n", "k=7\r\n", "[S\n",       "k=a=b\n", "l=\n",   "\x0B[S]\r\n", "k=\xFF\xE9\n", "m=8"};
  std::string text;
  for (std::size_t i = random() % 12; i > 0; --i) text += Pick(random, kLines);
  return text;
}

ProfileRequest RandomRequest(std::mt19937_64& random) {
  const std::string section = Pick(random, {"S", "T", "U", " S", "a", "S;x", "a]b"});
  const std::string key = Pick(random, {"k", "l", "m", "n", "a b", " k", "", "k;", "[k"});
  const std::string value = Pick(random, {"", "x", "a=b", "a b", " x", "x;", "[S]", "]", "\n", std::string(1015, 'x')});
  switch (random() % 4) {
    case 0:
      return DeleteKey(section, key);
    case 1:
      return DeleteSection(section);
    default:
      return Set(section, key, value);
  }
}

// The content that programs must read after the edit. It is computed from the request alone.
ProfileContent Expected(ProfileContent content, const ProfileRequest& request) {
  std::vector<ProfileEntry>& entries = content.entries[request.section];
  if (request.kind == ProfileRequest::Kind::kDeleteSection) {
    std::erase(content.sections, request.section);
    content.entries.erase(request.section);
  } else if (request.kind == ProfileRequest::Kind::kDeleteKey) {
    std::erase_if(entries, [&request](const ProfileEntry& entry) { return entry.key == request.key; });
  } else {
    const ProfileEntry& requested = request.entries[0];
    bool is_there = false;
    for (ProfileEntry& entry : entries) {
      if (entry.key != requested.key) continue;
      entry.value = requested.value;
      is_there = true;
    }
    if (!is_there) entries.push_back(requested);
    const bool has_section =
        std::find(content.sections.begin(), content.sections.end(), request.section) != content.sections.end();
    if (!has_section) content.sections.push_back(request.section);
  }
  return content;
}

}  // namespace

TEST(ProfileEdit, AcceptedEditChangesOnlyWhatWasRequested) {
  std::mt19937_64 random(qx::test::Seed("profile-edit"));
  const qx::test::MemoryFile file;
  int accepted = 0;
  for (int round = 0; round < 15'000; ++round) {
    const std::string text = RandomFile(random);
    const ProfileRequest request = RandomRequest(random);
    file.Write(text);
    const ProfileContent before = ReadThroughClass(file.Path());
    EXPECT_EQ(before, ContentOf(text)) << text;
    const ProfilePlan plan = PlanEdit(text, request);
    if (plan.state != ProfileState::kDone) continue;
    ++accepted;
    ASSERT_EQ(ApplyPlan(plan, text, file.Path()), "") << text << "\n---\n" << plan.text;
    EXPECT_EQ(ReadThroughClass(file.Path()), Expected(before, request)) << text << "\n---\n" << plan.text;
  }
  EXPECT_GT(accepted, 2000);
}

// Each value that is refused would be read back as a different one.
TEST(ProfileEdit, RefusedValueWouldNotBeReadBack) {
  std::mt19937_64 random(qx::test::Seed("profile-refused"));
  int refused = 0;
  for (int round = 0; round < 20'000; ++round) {
    const ProfileRequest request = RandomRequest(random);
    if (request.kind != ProfileRequest::Kind::kSet || PlanEdit("", request).state != ProfileState::kRefused) continue;
    ++refused;
    const ProfileEntry& entry = request.entries[0];
    const qx::test::MemoryFile file;
    file.Write("\n[" + request.section + "]\n\n" + entry.key + "=" + entry.value + "\n");
    const ProfileContent requested = Expected({}, request);
    // An empty name is read back, but not in the lists of the class, because it ends them.
    const bool ends_lists = entry.key.empty() || request.section.empty();
    EXPECT_TRUE(ends_lists || ReadThroughClass(file.Path()) != requested) << file.Read();
  }
  EXPECT_GT(refused, 4000);
}

}  // namespace qx::inifile
