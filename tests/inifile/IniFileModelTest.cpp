// Compares random files and operations with two oracles: the fgets form of the reading primitive, and a list of lines.
#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "inifile/IniFile.h"
#include "tests/inifile/FgetsProfile.h"
#include "tests/inifile/LineList.h"
#include "tests/inifile/MemoryFile.h"
#include "tests/support/Support.h"

namespace {

using namespace std::string_literals;
using qx::test::LineList;

class Dice {
 public:
  explicit Dice(const char* who) : random_(qx::test::Seed(who)) {}

  std::size_t Below(std::size_t end) { return random_() % end; }
  bool OneIn(std::size_t n) { return Below(n) == 0; }

  template <std::size_t N>
  const std::string& Pick(const std::array<std::string, N>& from) {
    return from[Below(N)];
  }

  std::string Section() { return Pick(kSections); }
  std::string Key() { return Pick(kKeys); }
  std::string Value() { return OneIn(40) ? std::string(1000 + Below(100), 'v') : Pick(kValues); }

  std::string File() {
    std::string bytes;
    for (std::size_t lines = Below(24); lines > 0; --lines) bytes += Line();
    return bytes;
  }

 private:
  std::string Line() {
    const std::string line = LineText();
    if (OneIn(12)) return line + "\r\n";
    if (OneIn(30)) return line + "\0"s + Pick(kLines) + "\n";
    return OneIn(20) ? line : line + "\n";
  }

  std::string LineText() {
    switch (Below(8)) {
      case 0:
      case 1:
        return "[" + Section() + "]" + (OneIn(6) ? Pick(kLines) : "");
      case 2:
      case 3:
      case 4:
        return Key() + (OneIn(4) ? " \t=  " : "=") + Value() + (OneIn(6) ? " ; note" : "");
      case 5:
        return Pick(kLines) + Key() + "=" + Value();
      case 6:
        return OneIn(6) ? std::string(1018 + Below(8), 'x') + Pick(kLines) + Key() + "=1" : Pick(kLines);
      default:
        return Pick(kLines);
    }
  }

  inline static const std::array<std::string, 6> kSections = {"A", "B", "Sec", " A", "", "A;"};
  inline static const std::array<std::string, 10> kKeys = {"a",  "b",         "key", "kex", "keys",
                                                           "ay", "two words", "",    " a",  "\xFF\x80"};
  inline static const std::array<std::string, 8> kValues = {"",    "1",   "value", " padded ",
                                                            "a;b", "a=b", "[A]",   "\xE4\xF6"};
  inline static const std::array<std::string, 12> kLines = {"",  "; comment", " ", "\t; c", "text", "[A",
                                                            "[", " [A]",      "=", ";",     "\v",   "[B]"};

  std::mt19937_64 random_;
};

class IniFileModel : public testing::Test {
 protected:
  const qx::test::MemoryFile file_;
  const std::string path_ = file_.Path();
};

struct Placed {
  unsigned result;
  std::string text;  // with the NUL after it
  bool operator==(const Placed&) const = default;
};

Placed Shown(unsigned result, const std::string& buffer) { return {result, buffer.substr(0, result + 1)}; }

TEST_F(IniFileModel, PrimitiveReadsLikeTheFgetsFormAtEveryBufferSize) {
  Dice dice("IniFileModel primitive");
  for (int round = 0; round < 1500; ++round) {
    file_.Write(dice.File());
    for (int call = 0; call < 12; ++call) {
      const std::string section = dice.Section();
      const std::string key = dice.Key();
      const char* const wanted_section = dice.OneIn(4) ? nullptr : section.c_str();
      const char* const wanted_key = dice.OneIn(3) ? nullptr : key.c_str();
      const char* const def = dice.OneIn(3) ? nullptr : "default";
      const auto size = static_cast<unsigned>(2 + dice.Below(dice.OneIn(4) ? 1200 : 24));
      std::string expected(size + 1, '#');
      std::string actual(size + 1, '#');
      const unsigned plain = qx::test::FgetsGetString(wanted_section, wanted_key, def, expected.data(), size, path_);
      const unsigned ours =
          CIniFile::GetPrivateProfileString(wanted_section, wanted_key, def, actual.data(), size, path_.c_str());
      ASSERT_EQ(Shown(ours, actual), Shown(plain, expected))
          << "round " << round << ", size " << size << ", section " << section << ", key " << key << "\n"
          << qx::test::HexDump(file_.Read());
      ASSERT_EQ(actual.back(), '#');
    }
  }
}

void ExpectReadsAgree(CIniFile& ini, const LineList& model, const std::string& section, const std::string& key) {
  std::vector<std::string> names;
  (void)ini.GetSections(names);
  ASSERT_EQ(names, qx::test::UpToAnEmptyName(model.SectionNames()));
  names.clear();
  (void)ini.GetEnums(names, section.c_str());
  ASSERT_EQ(names, qx::test::UpToAnEmptyName(model.Keys(section)));

  const std::string value = model.Value(section, key, "default");
  std::string out;
  ASSERT_TRUE(ini.GetString(out, section.c_str(), key.c_str(), "default"));
  ASSERT_EQ(out, value);
  ASSERT_EQ(ini.GetString(section.c_str(), key.c_str(), "default"), value);
}

// Copies a section in the model. CopySection writes to the file at once, so it may read what it has just written.
void CopyInModel(LineList& model, const std::string& from, const std::string& to) {
  for (const std::string& key : qx::test::UpToAnEmptyName(model.Keys(from))) {
    (void)model.Write(to, key, model.Value(from, key, ""));
  }
}

struct Step {
  std::string section;
  std::string key;
  std::string value;
};

// Makes one random write in both. The results must be equal; the caller compares the bytes.
void WriteBoth(CIniFile& ini, LineList& model, Dice& dice, const Step& step) {
  const auto& [section, key, value] = step;
  const auto number = static_cast<int>(dice.Below(2000)) - 1000;
  switch (dice.Below(6)) {
    case 0:
      ASSERT_EQ(ini.SetNumber(section.c_str(), key.c_str(), number), model.Write(section, key, std::to_string(number)));
      break;
    case 1:
      ASSERT_EQ(ini.DeleteKey(section.c_str(), key.c_str()), model.Write(section, key, std::nullopt));
      break;
    case 2:
      if (dice.OneIn(2)) return;  // fewer deletions: otherwise the files stay empty
      ASSERT_EQ(ini.DeleteSection(section.c_str()), model.Write(section, std::nullopt, std::nullopt));
      break;
    case 3: {
      const std::string from = dice.Section();
      ASSERT_TRUE(ini.CopySection(from.c_str(), section.c_str()));
      CopyInModel(model, from, section);
      break;
    }
    default:
      ASSERT_EQ(ini.SetString(section.c_str(), key.c_str(), value.c_str()), model.Write(section, key, value));
  }
}

TEST_F(IniFileModel, RandomOperationsLeaveTheBytesOfAListOfLines) {
  Dice dice("IniFileModel operations");
  for (int round = 0; round < 1000; ++round) {
    LineList model(dice.File());
    file_.Write(model.Bytes());
    CIniFile ini;
    ASSERT_TRUE(ini.Open(path_.c_str(), true));
    for (int operation = 0; operation < 6; ++operation) {
      SCOPED_TRACE("round " + std::to_string(round) + ", operation " + std::to_string(operation) + "\n" +
                   qx::test::HexDump(model.Bytes()));
      const Step step = {dice.Section(), dice.Key(), dice.Value()};
      WriteBoth(ini, model, dice, step);
      ASSERT_EQ(file_.Read(), model.Bytes()) << step.section << "|" << step.key << "|" << step.value;
      ExpectReadsAgree(ini, model, dice.Section(), dice.Key());
      if (HasFatalFailure()) return;
    }
  }
}

// The processor time of this thread, so that other programs of the machine do not count.
double MillisecondsOfCpu() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double MillisecondsPerEnum(const std::string& path) {
  CIniFile ini;
  ini.Open(path.c_str(), true);
  double best = 1e9;
  for (int i = 0; i < 5; ++i) {
    const double start = MillisecondsOfCpu();
    std::vector<std::string> names;
    EXPECT_TRUE(ini.GetEnums(names, "S"));
    best = std::min(best, MillisecondsOfCpu() - start);
  }
  return best;
}

// Eight times as many keys must need about eight times the time. If the list were scanned for each name, they would
// need 64 times the time.
TEST_F(IniFileModel, EnumerationCostGrowsInProportionToTheList) {
  const auto write = [&](int keys) {
    std::string text = "[S]\n";
    for (int i = 0; i < keys; ++i) text += "key" + std::to_string(10000 + i) + "=" + std::string(200, 'v') + "\n";
    file_.Write(text);
  };
  double ratio = 0;
  for (int attempt = 0; attempt < 4;
       ++attempt) {  // another program can disturb one measurement through the processor's cache
    write(850);
    const double eighth = MillisecondsPerEnum(path_);
    write(6800);
    ratio = MillisecondsPerEnum(path_) / eighth;
    if (ratio < 20) break;
  }
  EXPECT_LT(ratio, 20);
}

}  // namespace
