// Tests every mistake that the classes of the SDK refuse: the error, its whole reason, and that nothing is written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "sdk/Reader.h"
#include "sdk/Writer.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

// A report with one record, which `writer` has open.
struct Scene {
  TempDir directory;
  std::string base = directory.File("r");
  Writer writer;
  Writer other;
  Reader reader;
  CReportFileBase agent;
  std::unique_ptr<WaitingChild> process;

  Scene() { EXPECT_FALSE(writer.Open(base, 3).Failed() || writer.Append("a").Failed()); }

  void CloseWriter() { writer.Close(); }
  void StartProcess(const std::function<bool()>& action) {
    writer.Close();
    process = std::make_unique<WaitingChild>(action);
  }

  // Every file below the directory with its bytes.
  std::string Files() const {
    std::string all;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory.Path())) {
      all += entry.path().string() + "\n" + (entry.is_regular_file() ? ReadFile(entry.path().string()) : "") + "\n";
    }
    return all;
  }

  // The text with BASE for the path of the report and PROCESS for the number of the other process.
  std::string Shown(std::string text) const {
    const auto replace = [&text](const std::string& what, const char* with) {
      for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what)) {
        text.replace(at, what.size(), with);
      }
    };
    replace(base, "BASE");
    if (process != nullptr) replace("process " + std::to_string(process->Id()), "process PROCESS");
    return text;
  }
};

struct Mistake {
  const char* name;
  std::function<void(Scene&)> prepare;
  std::function<Error(Scene&)> make;
  ErrorCode code;
  const char* text;
  std::size_t record = 0;
};

void Nothing(Scene&) {}
void CloseTheWriter(Scene& scene) { scene.CloseWriter(); }

void RemoveIndex(Scene& scene) {
  scene.CloseWriter();
  fs::remove(scene.base + ".ind");
}
void RemoveData(Scene& scene) {
  scene.CloseWriter();
  fs::remove(scene.base + ".dat");
}
void DamageHeader(Scene& scene) {
  scene.CloseWriter();
  std::string index = ReadFile(scene.base + ".ind");
  index[12] = 0;  // a ring without slots
  WriteFile(scene.base + ".ind", index);
}
void OpenReader(Scene& scene) { EXPECT_FALSE(scene.reader.Open(scene.base).Failed()); }

const std::string kNulInside("a\0b", 3);
const std::string kLongText(kRecordTextMax + 1, 'x');

std::function<Error(Scene&)> AppendOne(std::string text) {
  return [text = std::move(text)](Scene& scene) { return scene.writer.Append(text); };
}
std::function<Error(Scene&)> AppendThird(std::string text) {
  return [text = std::move(text)](Scene& scene) { return scene.writer.Append({"good", "good", text, "good"}); };
}

constexpr const char* kTooLongText = "a record of 1048574 bytes is too long; at most 1048573 bytes fit into a reply";
constexpr const char* kNotOpenText = "no report is open";
constexpr const char* kOtherText = "BASE is written by process PROCESS; two writers overwrite each other's records";

std::vector<Mistake> MistakesOfTexts() {
  using enum ErrorCode;
  return {
      {"line feed", Nothing, AppendOne("one\ntwo"), kBadText,
       "a record contains a line feed at offset 3, at which readers would end it"},
      {"line feed at the end", Nothing, AppendOne("one\n"), kBadText,
       "a record contains a line feed at offset 3, at which readers would end it"},
      {"NUL", Nothing, AppendOne(kNulInside), kBadText,
       "a record contains a NUL at offset 1, at which readers would end it"},
      {"byte 0xFF", Nothing, AppendOne("\xFF"), kBadText,
       "a record contains a byte 0xFF at offset 0, at which readers would end it"},
      {"too long", Nothing, AppendOne(kLongText), kTooLong, kTooLongText},
      {"line feed in a batch", Nothing, AppendThird("\n"), kBadText,
       "a record contains a line feed at offset 0, at which readers would end it", 2},
      {"NUL in a batch", Nothing, AppendThird(kNulInside), kBadText,
       "a record contains a NUL at offset 1, at which readers would end it", 2},
      {"0xFF in a batch", Nothing, AppendThird("a\xFF"), kBadText,
       "a record contains a byte 0xFF at offset 1, at which readers would end it", 2},
      {"too long in a batch", Nothing, AppendThird(kLongText), kTooLong, kTooLongText, 2},
      {"batch of strings", Nothing,
       [](Scene& scene) {
         return scene.writer.Append(std::vector<std::string>{"good", "b\nd"});
       },
       kBadText, "a record contains a line feed at offset 1, at which readers would end it", 1},
  };
}

std::vector<Mistake> MistakesOfWriters() {
  using enum ErrorCode;
  const auto open_other = [](Scene& scene) { return scene.other.Open(scene.base, 3); };
  const auto open_existing = [](Scene& scene) { return scene.other.OpenExisting(scene.base); };
  const auto use_refused = [open_other](Scene& scene) {
    EXPECT_TRUE(open_other(scene).Failed());
    return scene.other.Append("x");
  };
  const auto start_writer = [](Scene& scene) {
    scene.StartProcess([&scene] { return !scene.other.Open(scene.base, 3).Failed(); });
  };
  const auto start_agent = [](Scene& scene) {
    scene.StartProcess([&scene] { return scene.agent.Open(scene.base.c_str(), 3); });
  };
  const auto start_old_agent = [](Scene& scene) {  // an agent that does not take the lock
    scene.StartProcess([&scene] { return open((scene.base + ".dat").c_str(), O_RDWR | O_CLOEXEC) >= 0; });
  };
  constexpr const char* kThisProcess =
      "BASE is written by this process, or by one that cannot be seen; two writers overwrite each other's records";
  constexpr const char* kContradicts = "BASE.ind is damaged: its header contradicts itself";
  return {
      {"second writer of this process", Nothing, open_other, kOtherWriter, kThisProcess},
      {"second writer of an existing report", Nothing, open_existing, kOtherWriter, kThisProcess},
      {"append after a refused open", Nothing, use_refused, kNotOpen, kNotOpenText},
      {"writer of another process", start_writer, open_other, kOtherWriter, kOtherText},
      {"agent of another process", start_agent, open_other, kOtherWriter, kOtherText},
      {"agent without the lock", start_old_agent, open_other, kOtherWriter, kOtherText},
      {"append to a closed writer", CloseTheWriter, AppendOne("x"), kNotOpen, kNotOpenText},
      {"batch to a closed writer", CloseTheWriter, AppendThird("x"), kNotOpen, kNotOpenText},
      {"empty batch to a closed writer", CloseTheWriter,
       [](Scene& scene) { return scene.writer.Append(std::vector<std::string>()); }, kNotOpen, kNotOpenText},
      {"writer that was never open", Nothing, [](Scene& scene) { return scene.other.Append("x"); }, kNotOpen,
       kNotOpenText},
      {"ring of 0", CloseTheWriter, [](Scene& scene) { return scene.other.Open(scene.base + "new", 0); }, kBadArgument,
       "a ring of 0 records; 1 to 1073741823 are possible"},
      {"ring that is too large", CloseTheWriter,
       [](Scene& scene) { return scene.other.Open(scene.base + "new", 0x40000000); }, kBadArgument,
       "a ring of 1073741824 records; 1 to 1073741823 are possible"},
      {"empty path", CloseTheWriter, [](Scene& scene) { return scene.other.Open("", 3); }, kBadArgument,
       "the path of a report is empty"},
      {"empty path of an existing report", CloseTheWriter, [](Scene& scene) { return scene.other.OpenExisting(""); },
       kBadArgument, "the path of a report is empty"},
      {"NUL in the path", CloseTheWriter, [](Scene& scene) { return scene.other.Open(scene.base + kNulInside, 3); },
       kBadArgument, "the path of a report contains a NUL"},
      {"no directory", CloseTheWriter, [](Scene& scene) { return scene.other.Open(scene.base + "/none/r", 3); },
       kSystem, "cannot create BASE/none/r.ind: No such file or directory"},
      {"existing report that is missing", CloseTheWriter,
       [](Scene& scene) { return scene.other.OpenExisting(scene.base + "none"); }, kNotFound,
       "there is no BASEnone.ind"},
      {"index file is missing", RemoveIndex, open_other, kDamaged,
       "there is no BASE.ind, but BASE.dat holds something; remove it or move it away to start the report over"},
      {"data file is missing", RemoveData, open_other, kDamaged,
       "there is no BASE.dat, but BASE.ind holds something; remove it or move it away to start the report over"},
      {"index file of an existing report", RemoveIndex, open_existing, kNotFound, "there is no BASE.ind"},
      {"damaged header", DamageHeader, open_other, kDamaged, kContradicts},
  };
}

std::vector<Mistake> MistakesOfReaders() {
  using enum ErrorCode;
  const auto open_report = [](Scene& scene) { return scene.reader.Open(scene.base); };
  const auto refresh = [](Scene& scene) { return scene.reader.Refresh(); };
  const auto read = [](Scene& scene) {
    Record record;
    return scene.reader.Read(0, record);
  };
  const auto next = [](Scene& scene) {
    EXPECT_FALSE(scene.reader.Next().has_value());
    return scene.reader.LastError();
  };
  const auto loop = [](Scene& scene) {
    EXPECT_TRUE(scene.reader.begin() == scene.reader.end());
    return scene.reader.LastError();
  };
  const auto close_reader = [](Scene& scene) {
    OpenReader(scene);
    scene.reader.Close();
  };
  return {
      {"refresh without a report", Nothing, refresh, kNotOpen, kNotOpenText},
      {"read without a report", Nothing, read, kNotOpen, kNotOpenText},
      {"next without a report", Nothing, next, kNotOpen, kNotOpenText},
      {"loop without a report", Nothing, loop, kNotOpen, kNotOpenText},
      {"refresh of a closed reader", close_reader, refresh, kNotOpen, kNotOpenText},
      {"read of a closed reader", close_reader, read, kNotOpen, kNotOpenText},
      {"next of a closed reader", close_reader, next, kNotOpen, kNotOpenText},
      {"loop of a closed reader", close_reader, loop, kNotOpen, kNotOpenText},
      {"record that is not there", OpenReader,
       [](Scene& scene) {
         Record record;
         return scene.reader.Read(1, record);
       },
       kBadArgument, "there is no record of age 1, only 1 records"},
      {"reader of no report", Nothing, [](Scene& scene) { return scene.reader.Open(scene.base + "none"); }, kNotFound,
       "there is no report BASEnone"},
      {"reader of an empty path", Nothing, [](Scene& scene) { return scene.reader.Open(""); }, kBadArgument,
       "the path of a report is empty or contains a NUL"},
      {"reader of a path with a NUL", Nothing, [](Scene& scene) { return scene.reader.Open(scene.base + kNulInside); },
       kBadArgument, "the path of a report is empty or contains a NUL"},
      {"text that is not a cursor", Nothing, [](Scene& scene) { return scene.reader.Open(scene.base, "qx1 x"); },
       kBadArgument, "the text is not the cursor of a report"},
      {"reader of a damaged header", DamageHeader, open_report, kDamaged,
       "BASE.ind is damaged: its header contradicts itself"},
      {"reader of a directory", Nothing,
       [](Scene& scene) {
         fs::create_directory(scene.base + "d.ind");
         const Error error = scene.reader.Open(scene.base + "d");
         fs::remove(scene.base + "d.ind");
         return error;
       },
       kSystem, "cannot open BASEd: Invalid argument"},
  };
}

void ExpectRefused(const Mistake& mistake) {
  SCOPED_TRACE(mistake.name);
  Scene scene;
  mistake.prepare(scene);
  const std::string before = scene.Files();
  const Error error = mistake.make(scene);
  EXPECT_EQ(error.code, mistake.code);
  EXPECT_EQ(scene.Shown(error.text), mistake.text);
  EXPECT_EQ(error.record, mistake.record);
  EXPECT_EQ(scene.Files(), before) << "something was written";
}

TEST(SdkMisuse, TextsThatCannotBeReadBackAreRefused) {
  for (const Mistake& mistake : MistakesOfTexts()) ExpectRefused(mistake);
}

TEST(SdkMisuse, MistakesOfWritersAreRefused) {
  for (const Mistake& mistake : MistakesOfWriters()) ExpectRefused(mistake);
}

TEST(SdkMisuse, MistakesOfReadersAreRefused) {
  for (const Mistake& mistake : MistakesOfReaders()) ExpectRefused(mistake);
}

}  // namespace
}  // namespace qx::test
