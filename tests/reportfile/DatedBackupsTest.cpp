#include "reportfile/tools/backup/DatedBackups.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "base/File.h"
#include "reportfile/tools/backup/BackupVerify.h"
#include "reportfile/tools/backup/Checksums.h"
#include "reportfile/tools/backup/CompressedFile.h"
#include "reportfile/tools/directory/StoreRestore.h"
#include "tests/reportfile/StoreLife.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::BackupState;
using report::Checksum;
using report::DatedBackup;
using report::ListedState;
using report::RestorableBackup;
using report::VerifiedItem;
using report::VerifiedState;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace fs = std::filesystem;

constexpr std::time_t kNewYear = 1767225600;  // 2026-01-01T00-00-00Z
constexpr std::time_t kDay = 86400;

void MakeBackedUpStore(const std::string& base_path, std::uint32_t slots, const std::vector<std::string>& texts) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(base_path.c_str(), slots));
  for (const std::string& text : texts) ASSERT_TRUE(store.writeLine(text.c_str()));
}

class DatedBackups : public testing::Test {
 protected:
  DatedBackups() {
    for (const char* const name : {"reports", "reports/disk", "reports/other", "backups", "tmp"})
      fs::create_directory(dir_.File(name));
    MakeBackedUpStore(reports_ + "/load", 3, Numbered(8));
    MakeBackedUpStore(reports_ + "/disk/sda", 9, {"a", std::string(5000, 'b')});
    WriteFile(reports_ + "/load.names", "[Quaxel Report Instances]\n");
    WriteFile(reports_ + "/load.ind.zst", "not compressed");
    WriteFile(reports_ + "/empty", "");
  }

  DatedBackup Make(bool is_compressed, std::size_t keep = 0, std::time_t now = kNewYear) const {
    return report::MakeDatedBackup(reports_, backups_, {.is_compressed = is_compressed, .keep = keep, .now = now});
  }

  // Makes a backup, and returns its directory.
  std::string MakeIn(bool is_compressed) const { return backups_ + "/" + Make(is_compressed).name; }

  // "name: state" of each file that is not sound.
  std::vector<std::string> Faults(const std::string& backup) const {
    const report::VerifiedBackup verified =
        report::VerifyBackup(backup, [this] { return report::MakeExpandedDirectory(tmp_); });
    if (verified.error != 0) return {verified.file + ": error " + std::to_string(verified.error)};
    const char* const names[] = {"sound", "damaged", "changed", "missing", "unlisted", "unreadable"};
    std::vector<std::string> faults;
    for (const VerifiedItem& item : verified.items) {
      if (item.state == VerifiedState::kSound) continue;
      faults.push_back(item.name + ": " + names[static_cast<int>(item.state)]);
    }
    EXPECT_THAT(ContentsOf(tmp_), IsEmpty());
    return faults;
  }

  // Restores into the new directory "restored". Returns the error number of the backup, or -1 if the restore itself
  // failed.
  int Restore(const std::string& backup, const std::vector<std::string>& names = {}) const {
    const RestorableBackup source(backup, names, [this] { return report::MakeExpandedDirectory(tmp_); });
    if (source.Error() != 0) return source.Error();
    report::RestoreOptions options;
    options.names = names;
    const auto state = report::RestoreReports(source.Path(), dir_.File("restored"), options).state;
    return state == report::RestoreState::kDone ? 0 : -1;
  }

  std::vector<std::string> NamesOfBackups() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(backups_)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir dir_;
  const std::string reports_ = dir_.File("reports");
  const std::string backups_ = dir_.File("backups");
  const std::string tmp_ = dir_.File("tmp");
};

std::vector<std::string> FilesBelow(const std::string& directory) {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string FrameOf(const std::string& content, bool has_size = true) {
  std::string frame(ZSTD_compressBound(content.size()), '\0');
  ZSTD_CCtx* const context = ZSTD_createCCtx();
  (void)ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, has_size ? 1 : 0);
  frame.resize(ZSTD_compress2(context, frame.data(), frame.size(), content.data(), content.size()));
  (void)ZSTD_freeCCtx(context);
  return frame;
}

// A backup of tests/reportfile/backups, which an earlier version has made.
std::string EarlierBackup(const std::string& name) { return QX_SOURCE_DIR "/tests/reportfile/backups/" + name; }

}  // namespace

TEST_F(DatedBackups, BackupIsListedVerifiedAndRestoredByteForByte) {
  for (const bool is_compressed : {false, true}) {
    const DatedBackup made = Make(is_compressed);
    ASSERT_EQ(made.copy.state, BackupState::kDone) << made.copy.file << " " << made.copy.error;
    EXPECT_EQ(made.name, is_compressed ? "2026-01-01T00-00-00Z-2" : "2026-01-01T00-00-00Z");
    const auto list = report::ListBackups(backups_).backups;
    EXPECT_EQ(list.back().state, ListedState::kWhole);
    EXPECT_EQ(list.back().is_compressed, is_compressed);
    EXPECT_EQ(list.back().reports, 2U);
    EXPECT_THAT(Faults(backups_ + "/" + made.name), IsEmpty());
    EXPECT_EQ(Restore(backups_ + "/" + made.name), 0);
    EXPECT_EQ(ContentsOf(dir_.File("restored")), ContentsOf(reports_));
    fs::remove_all(dir_.File("restored"));
  }
}

TEST_F(DatedBackups, PermissionsAndTimesSurviveCompression) {
  const std::string file = reports_ + "/load.names";
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  ASSERT_EQ(chmod((reports_ + "/disk").c_str(), 0750), 0);
  fs::last_write_time(file, fs::last_write_time(file) - std::chrono::hours(5));
  const std::string backup = MakeIn(true);
  EXPECT_EQ(fs::last_write_time(backup + "/reports.zst/load.names.zst"), fs::last_write_time(file));
  ASSERT_EQ(Restore(backup), 0);
  EXPECT_EQ(ModeOf(dir_.File("restored/load.names")) & 0777U, 0640U);
  EXPECT_EQ(ModeOf(dir_.File("restored/disk")) & 0777U, 0750U);
}

TEST_F(DatedBackups, HolesSurviveCompression) {
  MakeSparseFile(reports_ + "/sparse");
  ASSERT_EQ(Restore(MakeIn(true)), 0);
  EXPECT_TRUE(ReadFile(dir_.File("restored/sparse")) == ReadFile(reports_ + "/sparse"));
  EXPECT_LE(BlocksOf(dir_.File("restored/sparse")), BlocksOf(reports_ + "/sparse") + 512);
}

TEST_F(DatedBackups, SingleReportIsRestoredAloneWithItsDirectory) {
  for (const bool is_compressed : {false, true}) {
    const std::string backup = MakeIn(is_compressed);
    ASSERT_EQ(Restore(backup, {"disk/sda"}), 0);
    EXPECT_FALSE(Exists(dir_.File("restored/other")));
    EXPECT_THAT(FilesBelow(dir_.File("restored")), ElementsAre(EndsWith("disk/sda.dat"), EndsWith("disk/sda.ind")));
    EXPECT_EQ(ReadFile(dir_.File("restored/disk/sda.dat")), ReadFile(reports_ + "/disk/sda.dat"));
    fs::remove_all(dir_.File("restored"));
    EXPECT_EQ(Restore(backup, {"disk/sda", "none"}), -1);
    EXPECT_FALSE(Exists(dir_.File("restored")));
  }
}

// --- every failure leaves a whole backup, or no backup that the list shows as whole

TEST_F(DatedBackups, EveryFailedCallLeavesNoBackupUnderItsName) {
  for (const FileCall call : {FileCall::kAnyWriteAt, FileCall::kSync, FileCall::kMakeDirectory, FileCall::kRename}) {
    bool has_failed = true;
    for (int nth = 1; has_failed; ++nth) {
      DatedBackup made;
      {
        const FailingCall fault({.call = call, .nth = nth, .error = ENOSPC});
        made = Make(true);
        has_failed = fault.HasFailed();
      }
      const bool is_made = !made.name.empty();
      EXPECT_EQ(is_made, made.copy.state == BackupState::kDone);
      // The last sync is that of the directory of backups. The backup is whole whether or not it fails.
      EXPECT_TRUE(!is_made || !has_failed || call == FileCall::kSync) << static_cast<int>(call) << " " << nth;
      EXPECT_EQ(NamesOfBackups().size(), is_made ? 1U : 0U) << "nothing unfinished is left";
      EXPECT_TRUE(!is_made || Faults(backups_ + "/" + made.name).empty());
      fs::remove_all(backups_);
      fs::create_directory(backups_);
    }
  }
}

TEST_F(DatedBackups, KilledProcessLeavesAWholeBackupOrAnUnfinishedOne) {
  fs::remove_all(reports_ + "/disk");  // the list of checksums is now the longest file, and the last one
  bool is_killed = true;
  for (rlim_t bytes = 0; is_killed; bytes += 30) {
    // SIGXFSZ is not ignored: the first write over the limit kills the process in the middle.
    const auto back_up = [this, bytes] {
      const rlimit limit = {bytes, bytes};
      (void)setrlimit(RLIMIT_FSIZE, &limit);
      return Make(true).name.empty() ? 1 : 0;
    };
    is_killed = StatusOfChild(back_up) != 0;
    for (const report::ListedBackup& backup : report::ListBackups(backups_).backups) {
      EXPECT_EQ(backup.state, is_killed ? ListedState::kUnfinished : ListedState::kWhole) << backup.name;
    }
  }
  EXPECT_EQ(NamesOfBackups().size(), 1U) << "the next backup removes what the killed ones left";
}

// --- rotation

TEST_F(DatedBackups, RotationKeepsTheNewestBackups) {
  for (int day = 0; day < 4; ++day) EXPECT_EQ(Make(false, 3, kNewYear + day * kDay).removal_error, 0);
  EXPECT_THAT(NamesOfBackups(), ElementsAre("2026-01-02T00-00-00Z", "2026-01-03T00-00-00Z", "2026-01-04T00-00-00Z"));
  const DatedBackup with_old_clock = Make(false, 1, kNewYear);
  EXPECT_THAT(with_old_clock.removed,
              ElementsAre("2026-01-02T00-00-00Z", "2026-01-03T00-00-00Z", "2026-01-04T00-00-00Z"));
  EXPECT_THAT(NamesOfBackups(), ElementsAre("2026-01-01T00-00-00Z"));
}

TEST_F(DatedBackups, RotationIgnoresOtherNamesAndOtherUsers) {
  for (const char* const name : {"/monday", "/2026-01-01T00-00-00Zx", "/2999-01-01T00-00-00Z"}) {
    fs::create_directory(backups_ + name);
  }
  fs::create_symlink(reports_, backups_ + "/2000-01-01T00-00-00Z");
  const bool is_root = geteuid() == 0;
  const std::string other = backups_ + "/2999-01-01T00-00-00Z";
  if (!is_root) fs::remove(other);
  ASSERT_EQ(is_root ? chown(other.c_str(), 4711, 4711) : 0, 0);
  EXPECT_THAT(Make(false, 1, kNewYear).removed, IsEmpty());
  EXPECT_THAT(Make(false, 1, kNewYear + 1).removed, ElementsAre("2026-01-01T00-00-00Z"));
  EXPECT_TRUE(Exists(reports_ + "/load.ind"));
  EXPECT_EQ(NamesOfBackups().size(), is_root ? 5U : 4U);
}

TEST_F(DatedBackups, BackupThatLacksAReportRemovesNoOther) {
  const std::string old = Make(false, 1, kNewYear).name;
  const FailingCall fault({.call = FileCall::kReadAt, .error = EIO});
  const DatedBackup made = Make(false, 1, kNewYear + kDay);
  ASSERT_EQ(made.copy.state, BackupState::kDone) << made.copy.file;
  EXPECT_THAT(made.removed, IsEmpty());
  const auto list = report::ListBackups(backups_).backups;
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].name, old);
  EXPECT_EQ(list[1].state, ListedState::kIncomplete);
  EXPECT_EQ(list[1].left_out, 1U);
}

TEST_F(DatedBackups, SecondProcessInTheSameDirectoryIsRefused) {
  const WaitingChild other([this] {
    const int lock = open(backups_.c_str(), O_RDONLY | O_DIRECTORY);
    return file::TryLock(lock) == 0;
  });
  EXPECT_TRUE(Make(false).is_busy);
  EXPECT_THAT(NamesOfBackups(), IsEmpty());
}

// --- backups that are not as they were made

TEST_F(DatedBackups, EveryChangedFileIsNamedAndPreventsItsRestore) {
  for (const bool is_compressed : {false, true}) {
    const std::string backup = MakeIn(is_compressed);
    const std::string ending = is_compressed ? ".zst" : "";
    const std::string folder = backup + (is_compressed ? "/reports.zst/" : "/reports/");
    const std::string sound = ReadFile(folder + "load.dat" + ending);
    std::string changed = sound;
    changed[changed.size() / 2] ^= 1;
    WriteFile(folder + "load.dat" + ending, changed);
    EXPECT_THAT(Faults(backup), ElementsAre("load: changed"));
    EXPECT_EQ(Restore(backup), EBADMSG);
    EXPECT_FALSE(Exists(dir_.File("restored")));
    EXPECT_EQ(Restore(backup, {"disk/sda"}), 0) << "the other report is as it was";
    fs::remove_all(dir_.File("restored"));
    WriteFile(folder + "load.dat" + ending, sound);
    fs::remove(folder + "load.names" + ending);
    WriteFile(folder + "new" + ending, "n");
    EXPECT_THAT(Faults(backup), ElementsAre("load.names" + ending + ": missing", "new: unlisted"));
    EXPECT_EQ(report::ListBackups(backups_).backups.back().state, ListedState::kDamaged);
    EXPECT_EQ(Restore(backup), EBADMSG);
  }
}

TEST_F(DatedBackups, BackupWithoutItsListOrItsFolderIsDamaged) {
  for (const char* const name : {"backup.sha256", "reports"}) {
    const std::string backup = MakeIn(false);
    fs::remove_all(backup + "/" + name);
    EXPECT_THAT(Faults(backup), ElementsAre("backup.sha256: error " + std::to_string(EBADMSG)));
    EXPECT_EQ(Restore(backup), EBADMSG);
    EXPECT_EQ(report::ListBackups(backups_).backups.back().state, ListedState::kDamaged);
  }
}

TEST_F(DatedBackups, NamesOfTheListAreNeverOpened) {
  const std::string backup = MakeIn(false);
  const std::string list = ReadFile(backup + "/backup.sha256");
  const std::string outside(64, 'a');
  WriteFile(dir_.File("secret"), "s");
  WriteFile(backup + "/backup.sha256", list + outside + "  reports/../../../secret\n" + outside + "  reports//etc/x\n");
  EXPECT_THAT(Faults(backup), ElementsAre("../../../secret: missing", "/etc/x: missing"));
  EXPECT_EQ(Restore(backup), EBADMSG);
  WriteFile(backup + "/backup.sha256", list + "no checksum\n");
  EXPECT_THAT(Faults(backup), ElementsAre("backup.sha256: error " + std::to_string(EBADMSG)));
}

TEST_F(DatedBackups, LinksInABackupAreNotFollowed) {
  const std::string backup = MakeIn(true);
  fs::rename(backup + "/reports.zst", dir_.File("elsewhere"));
  fs::create_directory_symlink(dir_.File("elsewhere"), backup + "/reports.zst");
  EXPECT_EQ(Restore(backup), EBADMSG);
  const std::string second = MakeIn(true);
  fs::rename(second + "/reports.zst/load.names.zst", dir_.File("names"));
  fs::create_symlink(dir_.File("names"), second + "/reports.zst/load.names.zst");
  EXPECT_THAT(Faults(second), ElementsAre("load.names.zst: unlisted", "load.names.zst: missing"));
  EXPECT_EQ(Restore(second), EBADMSG);
  EXPECT_FALSE(Exists(dir_.File("restored")));
}

TEST_F(DatedBackups, FramesThatAreNotOfABackupAreRefused) {
  const std::string whole = FrameOf(std::string(1000, 'x') + "end");
  std::string huge = FrameOf(std::string(70000, '\0'));
  huge[4] = static_cast<char>(0xE0);  // a size of eight bytes follows: it claims more than 8 GiB
  const std::vector<std::pair<std::string, int>> rows = {
      {whole, 0},
      {whole.substr(0, whole.size() - 1), EBADMSG},
      {whole + "x", EBADMSG},
      {whole + whole, EBADMSG},
      {FrameOf("size", false), EBADMSG},
      {"", EBADMSG},
      {"no frame", EBADMSG},
      {huge, EFBIG},
  };
  const file::Descriptor directory = file::OpenDirectory(tmp_.c_str());
  for (const auto& [frame, error] : rows) {
    WriteFile(tmp_ + "/file.zst", frame);
    EXPECT_EQ(report::ExpandFile("file", directory.Number(), directory.Number()), error) << frame.size();
    EXPECT_EQ(fs::remove(tmp_ + "/file"), error == 0) << "nothing is left after a failure";
  }
  for (std::size_t size = 0; size < whole.size(); ++size) {
    WriteFile(tmp_ + "/file.zst", whole.substr(0, size));
    EXPECT_EQ(report::ExpandFile("file", directory.Number(), directory.Number()), EBADMSG) << size;
  }
}

// --- the formats

TEST_F(DatedBackups, BackupsOfAnEarlierVersionAreRestored) {
  for (const char* const name : {"plain", "2026-01-31T10-00-00Z", "2026-01-31T10-00-01Z"}) {
    EXPECT_THAT(Faults(EarlierBackup(name)), IsEmpty()) << name;
    ASSERT_EQ(Restore(EarlierBackup(name)), 0) << name;
    EXPECT_EQ(ContentsOf(dir_.File("restored")), ContentsOf(EarlierBackup("plain"))) << name;
    fs::remove_all(dir_.File("restored"));
  }
}

// Reports and backups must have the bytes that an earlier version writes, so that it can read them.
TEST_F(DatedBackups, ReportsAndBackupsAreByteForByteThoseOfAnEarlierVersion) {
  fs::remove_all(reports_);
  fs::create_directories(reports_ + "/disk");
  MakeBackedUpStore(reports_ + "/load", 3,
                    {"09:00 load 0.12", "09:01 load 0.31", "09:02 load 0.25", "09:03 load 0.18"});
  MakeBackedUpStore(reports_ + "/disk/sda", 4, {"sda 17"});
  WriteFile(reports_ + "/load.names", "[Quaxel Report Instances]\nVersion=1\n");
  EXPECT_EQ(ContentsOf(reports_), ContentsOf(EarlierBackup("plain")));
  ASSERT_EQ(report::BackupReports(reports_, dir_.File("plain")).state, BackupState::kDone);
  EXPECT_EQ(ContentsOf(dir_.File("plain")), ContentsOf(EarlierBackup("plain")));
  EXPECT_EQ(ContentsOf(MakeIn(false)), ContentsOf(EarlierBackup("2026-01-31T10-00-00Z")));
}

TEST(BackupChecksums, LinesAreThoseOfSha256sum) {
  const std::string hex(64, '0');
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"a", hex + "  a\n"},
      {"a b", hex + "  a b\n"},
      {"a\nb", "\\" + hex + "  a\\nb\n"},
      {"a\\b\r", "\\" + hex + "  a\\\\b\\r\n"},
  };
  for (const auto& [name, line] : rows) {
    EXPECT_EQ(report::ChecksumLines({{name, hex}}), line);
    std::vector<Checksum> parsed;
    ASSERT_TRUE(report::ParseChecksumLines(line, &parsed)) << line;
    EXPECT_EQ(parsed.at(0).path, name);
    for (std::size_t size = 1; size < line.size(); ++size) {
      EXPECT_FALSE(report::ParseChecksumLines(line.substr(0, size), &parsed)) << line.substr(0, size);
    }
  }
}

TEST(BackupChecksums, ChecksumIsSha256) {
  const TempDir dir;
  WriteFile(dir.File("abc"), "abc");
  const file::Descriptor directory = file::OpenDirectory(dir.Path().c_str());
  std::string hex;
  ASSERT_EQ(report::ChecksumOf("abc", directory.Number(), &hex), 0);
  EXPECT_EQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(BackupNames, OnlyTimesAreBackupNames) {
  const std::vector<std::pair<std::string, bool>> rows = {
      {"2026-01-31T10-00-00Z", true},
      {"2026-01-31T10-00-00Z-2", true},
      {"2026-01-31T10-00-00Z-9", true},
      {"2026-01-31T10-00-00Z-1", false},
      {"2026-01-31T10-00-00Z-10", false},
      {"2026-01-31T10-00-00", false},
      {"2026-01-31T10:00:00Z", false},
      {"", false},
      {"2026-01-31T10-00-00Z.partial-abc", false},
  };
  for (const auto& [name, is_one] : rows) EXPECT_EQ(report::IsBackupName(name), is_one) << name;
}

}  // namespace qx::test
