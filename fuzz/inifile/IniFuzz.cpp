// Reads and edits a profile file. CIniFile must agree with a plain list of lines and with a reader that uses fgets.
//
// An input is a script and a file. The script is the first line, with three characters for each step: an action, and
// one of a few section and key names. The bytes after that line are the file.
//   "sAa" set, "nAa" set a number, "kAa" delete a key, "dA." delete a section, "rAa" read, "lA." list, "cAB" copy
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/Require.h"
#include "inifile/IniFile.h"
#include "tests/inifile/FgetsProfile.h"
#include "tests/inifile/LineList.h"
#include "tests/inifile/MemoryFile.h"

namespace {

using qx::fuzz::Demand;
using qx::test::LineList;
using qx::test::MemoryFile;
using qx::test::UpToAnEmptyName;

constexpr std::size_t kStepsMax = 16;

template <std::size_t N>
std::string Pick(const char* const (&names)[N], char which) {
  return names[static_cast<unsigned char>(which) % N];
}

std::string SectionName(char which) {
  static constexpr const char* kNames[] = {"", "A", "B", "Sec", "a b", " A", "A]", "A;"};
  return Pick(kNames, which);
}

std::string KeyName(char which) {
  static constexpr const char* kNames[] = {"a", "b", "", " a", "key", "a b", "[A]", "\xFF"};
  return Pick(kNames, which);
}

std::size_t Counted(const std::vector<std::string>& names) {
  std::size_t count = 0;
  for (const std::string& name : names) count += name.size() + 1;
  return count;
}

void CheckPrimitive(const std::string& path, const char* section, const char* key, unsigned size) {
  std::string expected(size, '#');
  std::string actual(size, '#');
  const unsigned plain = qx::test::FgetsGetString(section, key, "default", expected.data(), size, path);
  const unsigned ours = CIniFile::GetPrivateProfileString(section, key, "default", actual.data(), size, path.c_str());
  Demand(ours == plain, "the count of the fgets form");
  Demand(actual.compare(0, ours + 1, expected, 0, ours + 1) == 0, "the text of the fgets form");
}

void CheckLists(CIniFile& ini, const LineList& model, const std::string& section) {
  constexpr std::size_t kListMax = 64509;
  std::vector<std::string> names;
  (void)ini.GetSections(names);
  const std::vector<std::string> sections = model.SectionNames();
  Demand(Counted(sections) > kListMax || names == UpToAnEmptyName(sections), "the section names");
  names.clear();
  (void)ini.GetEnums(names, section.c_str());
  const std::vector<std::string> keys = model.Keys(section);
  Demand(Counted(keys) > kListMax || names == UpToAnEmptyName(keys), "the keys");
}

void Copy(CIniFile& ini, LineList& model, const std::string& from, const std::string& to) {
  const std::vector<std::string> keys = model.Keys(from);
  if (keys.size() > 100) return;  // for each key the whole file is written
  Demand(ini.CopySection(from.c_str(), to.c_str()), "the copy");
  for (const std::string& key : UpToAnEmptyName(keys)) (void)model.Write(to, key, model.Value(from, key, ""));
}

void Run(CIniFile& ini, LineList& model, std::string_view step) {
  const std::string section = SectionName(step[1]);
  const std::string key = KeyName(step[2]);
  const std::string value = "value" + std::string(step[2] % 8 == 7 ? 1020 : 0, 'v');
  switch (step[0]) {
    case 's':
      Demand(ini.SetString(section.c_str(), key.c_str(), value.c_str()) == model.Write(section, key, value), "set");
      break;
    case 'n':
      Demand(ini.SetNumber(section.c_str(), key.c_str(), -1) == model.Write(section, key, "-1"), "set number");
      break;
    case 'k':
      Demand(ini.DeleteKey(section.c_str(), key.c_str()) == model.Write(section, key, std::nullopt), "delete key");
      break;
    case 'd':
      Demand(ini.DeleteSection(section.c_str()) == model.Write(section, std::nullopt, std::nullopt), "delete");
      break;
    case 'c':
      Copy(ini, model, section, SectionName(step[2]));
      break;
    case 'l':
      CheckLists(ini, model, section);
      break;
    default: {
      const auto size = 2 + static_cast<unsigned>(static_cast<unsigned char>(step[0]));
      CheckPrimitive(ini.GetFileName(), section.c_str(), key.c_str(), size);
      CheckPrimitive(ini.GetFileName(), section.c_str(), nullptr, size);
      CheckPrimitive(ini.GetFileName(), nullptr, nullptr, size);
      std::string out;
      Demand(ini.GetString(out, section.c_str(), key.c_str(), "default"), "a text of moderate length");
      Demand(out == model.Value(section, key, "default"), "the value");
      (void)ini.GetNumber(section.c_str(), key.c_str(), 0);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t script_end = std::min(input.find('\n'), input.size());
  std::string_view script = input.substr(0, std::min(script_end, 3 * kStepsMax));
  LineList model(std::string(input.substr(std::min(script_end + 1, input.size()))));

  static const MemoryFile file;
  file.Write(model.Bytes());
  CIniFile ini;
  Demand(ini.Open(file.Path().c_str(), true), "open");
  for (; script.size() >= 3; script.remove_prefix(3)) {
    Run(ini, model, script);
    Demand(file.Read() == model.Bytes(), "the bytes of the list of lines");
  }
  return 0;
}
