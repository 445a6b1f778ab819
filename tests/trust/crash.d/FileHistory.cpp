#include "tests/trust/crash.d/FileHistory.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "tests/support/Support.h"
#include "tests/trust/tracing.d/CallTracer.h"

namespace qx::trust {

namespace {

constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kUnsyncedNamesMax = 12;
constexpr std::uint64_t kExchangeFlag = 2;  // RENAME_EXCHANGE
constexpr unsigned kSecondsMax = 60;

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

// Turns the calls of the work into effects. It ignores paths outside of the directory.
class FileHistory::Recorder {
 public:
  Recorder(FileHistory& history, std::string directory)
      : history_(history), directory_(std::move(directory)), names_(history.before_.names) {
    next_file_ = static_cast<int>(names_.size());
  }

  void Note(const SystemCall& call) {
    if (call.result < 0) return;
    switch (call.number) {
      case SYS_openat:
        return NoteOpen(FullPath(Number(call), TextOf(call.process, call.arguments[1])), call);
      case SYS_write:
        return NoteWrite(call, offsets_[Number(call)]);
      case SYS_pwrite64:
        return NoteWrite(call, call.arguments[3]);
      case SYS_ftruncate:
        return NoteTruncate(call);
      case SYS_fsync:
      case SYS_fdatasync:
        return NoteSync(call);
      case SYS_rename:
        return NoteNames(Effect::Kind::kRename, call, call.arguments[0], call.arguments[1]);
      case SYS_renameat2:
        return NoteNames(call.arguments[4] == kExchangeFlag ? Effect::Kind::kExchange : Effect::Kind::kRename, call,
                         call.arguments[1], call.arguments[3]);
      case SYS_link:
        return NoteNames(Effect::Kind::kLink, call, call.arguments[0], call.arguments[1]);
      case SYS_unlink:
        return NoteNames(Effect::Kind::kRemove, call, call.arguments[0], call.arguments[0]);
      case SYS_unlinkat:
        return NoteNames(Effect::Kind::kRemove, call, call.arguments[1], call.arguments[1]);
      default:
        return RefuseUnknown(call.number);
    }
  }

 private:
  static int Number(const SystemCall& call) { return static_cast<int>(call.arguments[0]); }

  // Refuses a call that the model does not know: it would silently make the states incomplete.
  static void RefuseUnknown(long number) {
    for (const long other : {SYS_writev, SYS_pwritev, SYS_renameat, SYS_linkat, SYS_fallocate, SYS_creat, SYS_truncate,
                             SYS_copy_file_range, SYS_sendfile, SYS_symlink, SYS_syncfs, SYS_open}) {
      if (number == other) throw std::runtime_error("the history knows nothing of call " + std::to_string(number));
    }
  }

  // A path that begins at an open directory: "/tmp/x" of the descriptor, "a" => "/tmp/x/a".
  std::string FullPath(int directory, const std::string& path) const {
    const auto opened = paths_.find(directory);
    if (path.starts_with('/') || opened == paths_.end()) return path;
    return (opened->second == "/" ? std::string() : opened->second) + "/" + path;
  }

  void Add(Effect effect) {
    ApplyToNames(effect, names_);
    history_.effects_.push_back(std::move(effect));
  }

  void NoteOpen(const std::string& path, const SystemCall& call) {
    const int descriptor = static_cast<int>(call.result);
    files_.erase(descriptor);
    directories_.erase(descriptor);
    paths_[descriptor] = path;
    if ((call.arguments[2] & O_PATH) != 0) return;
    if (path == directory_ || path == directory_ + "/" || path == directory_ + "/.") directories_.insert(descriptor);
    if (path.rfind(directory_ + "/", 0) != 0 || directories_.contains(descriptor)) return;
    const std::string name = NameOf(path);
    const bool is_new = !names_.contains(name);
    if (is_new) Add({.kind = Effect::Kind::kCreate, .file = next_file_++, .from = {}, .to = name});
    files_[descriptor] = names_.at(name);
    offsets_[descriptor] = 0;
    if (!is_new && (call.arguments[2] & O_TRUNC) != 0) {
      Add({.kind = Effect::Kind::kTruncate, .file = names_.at(name)});
    }
  }

  void NoteWrite(const SystemCall& call, std::size_t offset) {
    if (!files_.contains(Number(call))) return;
    const auto size = static_cast<std::size_t>(call.result);
    Add({.kind = Effect::Kind::kWrite,
         .file = files_[Number(call)],
         .from = {},
         .to = {},
         .offset = offset,
         .bytes = BytesOf(call.process, call.arguments[1], size)});
    offsets_[Number(call)] = offset + size;
  }

  void NoteTruncate(const SystemCall& call) {
    if (!files_.contains(Number(call))) return;
    Add({.kind = Effect::Kind::kTruncate,
         .file = files_[Number(call)],
         .from = {},
         .to = {},
         .offset = call.arguments[1]});
  }

  void NoteSync(const SystemCall& call) {
    if (files_.contains(Number(call))) Add({.kind = Effect::Kind::kSyncFile, .file = files_[Number(call)]});
    if (directories_.contains(Number(call))) Add({.kind = Effect::Kind::kSyncDirectory});
  }

  void NoteNames(Effect::Kind kind, const SystemCall& call, std::uint64_t from, std::uint64_t to) {
    Add({.kind = kind, .file = -1, .from = NameOf(TextOf(call.process, from)), .to = NameOf(TextOf(call.process, to))});
  }

  FileHistory& history_;
  const std::string directory_;
  std::map<std::string, int> names_;
  std::map<int, std::string> paths_;  // descriptor => path
  std::map<int, int> files_;          // descriptor => file
  std::map<int, std::size_t> offsets_;
  std::set<int> directories_;
  int next_file_ = 0;
};

FileHistory::FileHistory(const std::string& directory, const std::function<void()>& prepare,
                         const std::function<void()>& work) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const int file = static_cast<int>(before_.names.size());
    before_.names[entry.path().filename()] = file;
    before_.contents[file] = test::ReadFile(entry.path());
  }
  Recorder recorder(*this, directory);
  const Watch watch = {.at_entry = [](const SystemCall&) { return Treatment(); },
                       .at_exit = [&](const SystemCall& call) { recorder.Note(call); }};
  const auto body = [&] {
    prepare();
    BeginWatched();
    work();
    EndWatched();
  };
  const ChildEnd end = RunChild(body, &watch, kSecondsMax);
  if (!end.IsGood()) throw std::runtime_error("the work " + end.Text());
}

bool FileHistory::IsOfNames(const Effect& effect) {
  using Kind = Effect::Kind;
  return effect.kind == Kind::kCreate || effect.kind == Kind::kRename || effect.kind == Kind::kExchange ||
         effect.kind == Kind::kLink || effect.kind == Kind::kRemove;
}

// False if the name that the effect changes does not exist.
bool FileHistory::ApplyToNames(const Effect& effect, std::map<std::string, int>& names) {
  if (effect.kind == Effect::Kind::kCreate) return names.try_emplace(effect.to, effect.file).second;
  if (!IsOfNames(effect)) return true;
  const auto from = names.find(effect.from);
  if (from == names.end()) return false;
  const int file = from->second;
  if (effect.kind == Effect::Kind::kExchange) {
    const auto to = names.find(effect.to);
    if (to == names.end()) return false;
    std::swap(from->second, to->second);
    return true;
  }
  if (effect.kind == Effect::Kind::kLink) return names.try_emplace(effect.to, file).second;
  names.erase(from);
  if (effect.kind == Effect::Kind::kRename) names[effect.to] = file;
  return true;
}

void FileHistory::ApplyToContents(const Effect& effect, std::map<int, std::string>& contents) {
  if (effect.kind == Effect::Kind::kCreate) contents[effect.file];
  if (effect.kind == Effect::Kind::kTruncate) contents[effect.file].resize(effect.offset);
  if (effect.kind != Effect::Kind::kWrite) return;
  std::string& content = contents[effect.file];
  content.resize(std::max(content.size(), effect.offset + effect.bytes.size()));
  content.replace(effect.offset, effect.bytes.size(), effect.bytes);
}

DirectoryState FileHistory::StateOf(const Disk& disk) {
  DirectoryState state;
  for (const auto& [name, file] : disk.names) state[name] = disk.contents.at(file);
  return state;
}

std::set<DirectoryState> FileHistory::StatesOfAKill() const {
  Disk disk = before_;
  std::set<DirectoryState> states = {StateOf(disk)};
  for (const Effect& effect : effects_) {
    for (std::size_t done = kPageBytes; done < effect.bytes.size(); done += kPageBytes) {
      Disk cut = disk;
      Effect part = effect;
      part.bytes.resize(done);
      ApplyToContents(part, cut.contents);
      states.insert(StateOf(cut));
    }
    ApplyToNames(effect, disk.names);
    ApplyToContents(effect, disk.contents);
    states.insert(StateOf(disk));
  }
  return states;
}

std::set<std::string> FileHistory::ContentsOnDisk(int file, std::size_t effects_done) const {
  std::map<int, std::string> now = before_.contents;
  now[file];
  std::string synced = now[file];
  std::set<std::string> contents;
  for (std::size_t i = 0; i < effects_done; ++i) {
    const Effect& effect = effects_[i];
    if (effect.file != file) continue;
    ApplyToContents(effect, now);
    if (effect.kind == Effect::Kind::kSyncFile) {
      contents.clear();
      synced = now[file];
    }
    const std::string& written = now[file];
    for (std::size_t done = 0; done < written.size() + kPageBytes; done += kPageBytes) {
      const std::size_t head = std::min(done, written.size());
      contents.insert(written.substr(0, head) + (head < synced.size() ? synced.substr(head) : ""));
      contents.insert(written.substr(0, head) + std::string(written.size() - head, '\0'));
    }
    if (effect.kind == Effect::Kind::kSyncFile) contents = {written};
  }
  contents.insert(synced);
  return contents;
}

std::set<std::map<std::string, int>> FileHistory::NamesOnDisk(std::size_t effects_done) const {
  std::map<std::string, int> synced = before_.names;
  std::vector<const Effect*> open;
  for (std::size_t i = 0; i < effects_done; ++i) {
    if (IsOfNames(effects_[i])) open.push_back(&effects_[i]);
    if (effects_[i].kind != Effect::Kind::kSyncDirectory) continue;
    for (const Effect* effect : open) ApplyToNames(*effect, synced);
    open.clear();
  }
  if (open.size() > kUnsyncedNamesMax) throw std::runtime_error("too many names that are not synced");
  std::set<std::map<std::string, int>> possible;
  for (unsigned subset = 0; subset < 1U << open.size(); ++subset) {
    std::map<std::string, int> names = synced;
    bool is_possible = true;
    for (std::size_t i = 0; i < open.size(); ++i) {
      if ((subset >> i & 1U) != 0) is_possible = is_possible && ApplyToNames(*open[i], names);
    }
    if (is_possible) possible.insert(names);
  }
  return possible;
}

void FileHistory::AddCombinations(const std::map<std::string, int>& names, std::size_t effects_done,
                                  std::set<DirectoryState>& states) const {
  std::vector<DirectoryState> combinations = {{}};
  for (const auto& [name, file] : names) {
    std::vector<DirectoryState> longer;
    for (const std::string& content : ContentsOnDisk(file, effects_done)) {
      for (DirectoryState state : combinations) {
        state[name] = content;
        longer.push_back(std::move(state));
      }
    }
    combinations = std::move(longer);
  }
  states.insert(combinations.begin(), combinations.end());
}

std::set<DirectoryState> FileHistory::StatesOfAPowerCut() const {
  std::set<DirectoryState> states;
  for (std::size_t done = 0; done <= effects_.size(); ++done) {
    for (const auto& names : NamesOnDisk(done)) AddCombinations(names, done, states);
  }
  return states;
}

}  // namespace qx::trust
