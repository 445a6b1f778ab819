// Prints the entries of one trace file, or of all in a directory, in the order of time.
#include "tools/qxctl/trace/TraceShowCommand.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/trace/TraceFilterOptions.h"
#include "tools/qxctl/trace/TracePlace.h"
#include "tools/qxctl/trace/TraceText.h"

namespace qx::ctl {

namespace {

using debug::TraceEntry;
using debug::TraceFinding;

struct Options {
  std::string path;
  bool json = false;
  bool with_header = true;
};

const char* FindingName(TraceFinding::Kind kind) {
  switch (kind) {
    case TraceFinding::Kind::kNoEntries:
      return "noEntries";
    case TraceFinding::Kind::kHole:
      return "hole";
    case TraceFinding::Kind::kCutEnd:
      return "cutEnd";
    case TraceFinding::Kind::kStampsAlike:
      return "stampsAlike";
    case TraceFinding::Kind::kClockSetBack:
      return "clockSetBack";
    case TraceFinding::Kind::kRingHeader:
      return "ringHeader";
    case TraceFinding::Kind::kWritePosition:
      return "writePosition";
  }
  return "";
}

Status OpenTraceFile(const std::string& path, debug::TraceFile& file) {
  const int error = file.Open(path);
  if (error == 0) return {};
  if (error == ENOENT) return {ExitCode::kNotFound, "there is no " + path};
  return Status::Io("cannot open " + path, error);
}

// One shown file, with its next entry.
class ShownFile {
 public:
  explicit ShownFile(std::string name) : name_(std::move(name)) {}

  Status Open(const std::string& path) {
    if (Status status = OpenTraceFile(path, file_); !status.IsOk()) return status;
    unroller_ = std::make_unique<debug::TraceUnroller>(file_);
    Advance();
    return {};
  }

  void Advance() {
    has_entry_ = unroller_->Next(entry_);
    if (entry_.stamp_ms.has_value()) order_ms_ = *entry_.stamp_ms;
  }

  const std::string& Name() const { return name_; }
  bool HasEntry() const { return has_entry_; }
  const TraceEntry& Entry() const { return entry_; }
  // The time of the next entry, for the order among the files; for an entry without a time, that of the entry before
  // it.
  std::int64_t OrderMs() const { return order_ms_; }
  bool BelongsToLast() const {
    return has_entry_ && (entry_.kind == TraceEntry::Kind::kPiece || entry_.kind == TraceEntry::Kind::kRest);
  }
  const debug::TraceUnroller& Unroller() const { return *unroller_; }

 private:
  std::string name_;
  debug::TraceFile file_;
  std::unique_ptr<debug::TraceUnroller> unroller_;
  TraceEntry entry_;
  bool has_entry_ = false;
  std::int64_t order_ms_ = 0;
};

using Files = std::vector<std::unique_ptr<ShownFile>>;

Status OpenFile(const std::string& path, const std::string& name, Files& files) {
  files.push_back(std::make_unique<ShownFile>(name));
  return files.back()->Open(path);
}

// `input` holds standard input, if that is the path: "-".
Status OpenPath(const std::string& path, file::Descriptor& input, Files& files) {
  if (path != "-") return OpenFile(path, path, files);
  std::string copy;
  Status status = StandardInputAsFile(input, copy);
  return status.IsOk() ? OpenFile(copy, "standard input", files) : status;
}

// Logs and rings: the regular files "log.*".
Status OpenDirectory(const std::string& directory, Files& files) {
  std::vector<std::string> names;
  if (Status status = FindTraceFiles(directory, names); !status.IsOk()) return status;
  for (const std::string& name : names) {
    std::string path = directory;
    path.append("/").append(name);
    if (Status status = OpenFile(path, name, files); !status.IsOk()) return status;
  }
  return {};
}

// The file whose next entry is the oldest; null if all are at their end.
ShownFile* Oldest(const Files& files) {
  ShownFile* oldest = nullptr;
  for (const auto& file : files) {
    if (file->HasEntry() && (oldest == nullptr || file->OrderMs() < oldest->OrderMs())) oldest = file.get();
  }
  return oldest;
}

Json FileToJson(const ShownFile& file) {
  const debug::TraceLayout& layout = file.Unroller().Layout();
  Json object = {{"file", VisibleText(file.Name())}, {"format", layout.ring.has_value() ? "ring" : "log"}};
  if (layout.ring.has_value()) {
    const auto number = [](const std::optional<std::uint64_t>& value) {
      return value.has_value() ? Json(*value) : Json(nullptr);
    };
    object["wraps"] = number(layout.ring->wraps);
    object["opens"] = number(layout.ring->opens);
    object["firstOpen"] = VisibleText(layout.ring->first_open);
    object["lastOpen"] = VisibleText(layout.ring->last_open);
  } else {
    object["wraps"] = layout.wrap.has_value() ? layout.wrap->cycle : 0;
  }
  return object;
}

// Prints entries one by one, so that a file of any size needs little memory. The JSON document, too, is written entry
// by entry.
class ShowPrinter {
 public:
  ShowPrinter(Context& context, const Options& options, bool is_directory)
      : context_(&context), json_(options.json), with_header_(options.with_header), is_directory_(is_directory) {}

  Status Begin(const Files& files) {
    if (!json_) return {};
    std::string text = "{\n  \"files\": [";
    for (std::size_t i = 0; i < files.size(); ++i) {
      text.append(i == 0 ? "\n    " : ",\n    ").append(JsonLine(FileToJson(*files[i])));
    }
    return context_->output.Data(text + "\n  ],\n  \"entries\": [");
  }

  Status Entry(const TraceEntry& entry, const std::string& file) {
    if (!json_) {
      const std::string prefix = is_directory_ ? VisibleText(file) + ": " : "";
      return context_->output.Data(EntryToText(context_->output, entry, prefix, with_header_));
    }
    const std::string separator = is_first_ ? "\n    " : ",\n    ";
    is_first_ = false;
    return context_->output.Data(separator + JsonLine(EntryToJson(entry, file)));
  }

  Status End(const std::vector<Json>& findings, ExitCode code) {
    if (!json_) return {};
    std::string text = is_first_ ? "],\n  \"findings\": [" : "\n  ],\n  \"findings\": [";
    for (std::size_t i = 0; i < findings.size(); ++i) {
      text.append(i == 0 ? "\n    " : ",\n    ").append(JsonLine(findings[i]));
    }
    text += findings.empty() ? "]" : "\n  ]";
    return context_->output.Data(text + ",\n  \"exitCode\": " + std::to_string(static_cast<int>(code)) + "\n}\n");
  }

 private:
  Context* context_;
  bool json_;
  bool with_header_;
  bool is_directory_;
  bool is_first_ = true;
};

// An entry with the further lines and pieces that belong to it. A slice has all of them or none.
struct EntryGroup {
  std::string file;
  std::vector<TraceEntry> entries;
};

Status PrintGroup(const EntryGroup& group, ShowPrinter& printer) {
  for (const TraceEntry& entry : group.entries) {
    if (Status status = printer.Entry(entry, group.file); !status.IsOk()) return status;
  }
  return {};
}

// Takes entries in the order of time, and prints those of the slice: at once, or, if the slice depends on the last
// entry, at the end.
class SlicedEntries {
 public:
  SlicedEntries(const Slice& slice, ShowPrinter& printer) : slice_(slice), held_(slice), printer_(printer) {}

  Status Add(const TraceEntry& entry, const std::string& file) {
    if (!slice_.NeedsAllRecords()) return printer_.Entry(entry, file);
    if (HasHeader(entry) || group_.file != file) Hold();
    group_.file = file;
    group_.entries.push_back(entry);
    return {};
  }

  Status Finish() {
    Hold();
    for (const EntryGroup& group : held_.Take()) {
      if (Status status = PrintGroup(group, printer_); !status.IsOk()) return status;
    }
    return {};
  }

 private:
  void Hold() {
    if (!group_.entries.empty()) held_.Add(std::exchange(group_, {}));
  }

  const Slice& slice_;
  SliceBuffer<EntryGroup> held_;
  ShowPrinter& printer_;
  EntryGroup group_;
};

Status PrintEntries(const Files& files, const TraceFilter& filter, ShowPrinter& printer) {
  std::vector<TraceSelection> selections(files.size(), TraceSelection(filter));
  SlicedEntries entries(filter.slice, printer);
  ShownFile* file = Oldest(files);
  while (file != nullptr) {
    const auto index = std::find_if(files.begin(), files.end(), [&](const auto& f) { return f.get() == file; });
    TraceSelection& selection = selections[static_cast<std::size_t>(index - files.begin())];
    if (selection.Takes(file->Entry())) {
      if (Status status = entries.Add(file->Entry(), file->Name()); !status.IsOk()) return status;
    }
    file->Advance();
    if (!file->BelongsToLast()) file = Oldest(files);
  }
  return entries.Finish();
}

// The findings about the files; each is also a line on standard error.
ExitCode CollectFindings(Context& context, const Files& files, std::vector<Json>& findings) {
  ExitCode code = ExitCode::kOk;
  const auto add = [&](const ShownFile& file, const char* name, const std::string& text) {
    findings.push_back(Json{{"file", VisibleText(file.Name())}, {"finding", name}, {"text", text}});
    context.output.Problem(VisibleText(file.Name()) + ": " + text);
  };
  for (const auto& file : files) {
    for (const TraceFinding& finding : file->Unroller().Findings()) {
      add(*file, FindingName(finding.kind), finding.text);
      if (code == ExitCode::kOk) code = ExitCode::kFinding;
    }
    if (!file->Unroller().HasChanged()) continue;
    add(*file, "changed", "the file was written while it was read; entries may be missing, cut or out of order");
    code = ExitCode::kChanged;
  }
  return code;
}

// If the command line has no path, the message says how to find the setting that names the directory.
Status WithoutPath(const Status& status) {
  if (status.Code() != ExitCode::kNotFound && status.Code() != ExitCode::kIo) return status;
  return {status.Code(), status.Message() + "; \"qxctl trace config\" shows what names that directory, or give a PATH"};
}

Status Show(Context& context, const Values& values) {
  const Options options = {values.Text("PATH", TraceDirectoryHere()), values.Flag("--json"),
                           !values.Flag("--no-header")};
  TraceFilter filter;
  if (Status status = TraceFilterOf(values, filter); !status.IsOk()) return status;
  std::error_code ignored;  // if `stat` fails, the path is treated as a file, and the open reports the reason
  const bool is_directory = std::filesystem::is_directory(options.path, ignored);
  Files files;
  file::Descriptor input;
  Status opened = is_directory ? OpenDirectory(options.path, files) : OpenPath(options.path, input, files);
  if (!opened.IsOk()) return values.Has("PATH") ? opened : WithoutPath(opened);

  ShowPrinter printer(context, options, is_directory);
  if (Status status = printer.Begin(files); !status.IsOk()) return status;
  if (Status status = PrintEntries(files, filter, printer); !status.IsOk()) return status;
  std::vector<Json> findings;
  const ExitCode code = CollectFindings(context, files, findings);
  if (Status status = printer.End(findings, code); !status.IsOk()) return status;
  return {code, ""};
}

constexpr Parameter kPathParameters[] = {
    {.name = "PATH",
     .kind = ValueKind::kTraceFile,
     .help = "A log or ring file, a directory with such files (log.*), or - for standard input; without it: the "
             "directory of the module's "
             "traces"},
};

constexpr Parameter kJsonParameters[] = {
    {.name = "--no-header", .help = "Leave out stamp, thread and module of the entries", .excludes = {"--json"}},
    {.name = "--json", .help = "Print files, entries and findings as JSON"},
};

constexpr Example kTraceShowExamples[] = {
    {"qxctl trace show", "Print the entries of the module's traces"},
    {"qxctl trace show --level error --since today", "Print the errors of today"},
    {"qxctl trace show log.qxtrace --last 20 --json", "Print the newest 20 entries of a file as JSON"},
};

}  // namespace

constinit const Command kTraceShowCommand = {
    .words = "trace show",
    .help = "Print the entries of trace files in the order of time",
    .run = Show,
    .parameters = {kPathParameters, kTraceFilterParameters, kTraceSliceParameters, kJsonParameters},
    .examples = kTraceShowExamples};

}  // namespace qx::ctl
