#include "reportfile/tools/WritingProcesses.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/Support.h"

namespace qx::test {
namespace {

using report::FileKey;
using report::WritingProcess;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

class WritingProcesses : public testing::Test {
 protected:
  WritingProcesses() { WriteFile(report_, "records"); }

  // Makes PID/fd/N, a link to `file`, and PID/fdinfo/N, which has `flags`.
  void AddDescriptor(const std::string& process, int number, const std::string& file, const std::string& flags) const {
    const std::string directory = processes_ + "/" + process;
    fs::create_directories(directory + "/fd");
    fs::create_directories(directory + "/fdinfo");
    fs::create_symlink(file, directory + "/fd/" + std::to_string(number));
    WriteFile(directory + "/fdinfo/" + std::to_string(number), "pos:\t0\n" + flags + "mnt_id:\t29\n");
  }

  // The processes that have the report open for writing.
  std::vector<int> Found() const {
    std::vector<int> ids;
    for (const WritingProcess& found : report::FindWritingProcesses({*report::KeyOf(report_)}, processes_)) {
      EXPECT_EQ(found.file, report::KeyOf(report_));
      ids.push_back(found.process);
    }
    return ids;
  }

  TempDir dir_;
  const std::string report_ = dir_.File("r1.dat");
  const std::string processes_ = dir_.File("processes");
};

}  // namespace

TEST_F(WritingProcesses, OnlyThoseThatMayWriteTheFileAreFound) {
  AddDescriptor("11", 3, report_, "flags:\t0100002\n");
  AddDescriptor("12", 3, report_, "flags:\t0100000\n");
  AddDescriptor("13", 7, report_, "flags:\t0102001\n");
  AddDescriptor("14", 3, "/dev/null", "flags:\t0100002\n");
  EXPECT_THAT(Found(), UnorderedElementsAre(11, 13));
}

TEST_F(WritingProcesses, EachDescriptorCounts) {
  AddDescriptor("11", 3, report_, "flags:\t0100000\n");
  AddDescriptor("11", 4, report_, "flags:\t0100001\n");
  EXPECT_THAT(Found(), ElementsAre(11));
}

TEST_F(WritingProcesses, OtherNamesAndEndedProcessesAreIgnored) {
  AddDescriptor("self", 3, report_, "flags:\t0100002\n");
  AddDescriptor("12x", 3, report_, "flags:\t0100002\n");
  AddDescriptor("13", 3, dir_.File("gone"), "flags:\t0100002\n");
  AddDescriptor("14", 3, report_, "");
  fs::create_directories(processes_ + "/15");
  EXPECT_THAT(Found(), IsEmpty());
  fs::remove_all(processes_);
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(WritingProcesses, FilesThatThisProcessWritesAreFound) {
  const int file = open(report_.c_str(), O_WRONLY | O_CLOEXEC);
  const auto found = report::FindWritingProcesses({*report::KeyOf(report_)});
  close(file);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].process, getpid());
  EXPECT_THAT(report::FindWritingProcesses({*report::KeyOf(report_)}), IsEmpty());
}

}  // namespace qx::test
