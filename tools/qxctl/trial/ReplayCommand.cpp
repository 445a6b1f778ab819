// Makes the calls of call files again, and compares the results byte for byte.
#include "tools/qxctl/trial/ReplayCommand.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/module/StateWord.h"
#include "tools/qxctl/trial/CallDiff.h"
#include "tools/qxctl/trial/CallFile.h"

namespace qx::ctl {

namespace {

struct Options {
  CallOptions call;  // only the module; the block is that of the call file
  std::vector<std::string> paths;
  std::vector<std::string> ignored;  // attributes
  bool force = false;
};

struct Replayed {
  std::string file;
  std::string function;
  std::vector<std::string> differences;  // empty: the call is as recorded
};

Status FilesOf(const Options& options, std::vector<std::string>& files) {
  for (const std::string& path : options.paths) {
    std::error_code error;
    if (!std::filesystem::is_directory(path, error)) {
      files.push_back(path);
      continue;
    }
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
      if (entry.path().extension() == ".json") found.push_back(entry.path().string());
    }
    if (error) return Status::Io("cannot read " + path, error.value());
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  return files.empty() ? Status(ExitCode::kNotFound, "there is no .json file to replay") : Status();
}

Status ReadCall(const std::string& file, bool force, RecordedCall& call) {
  std::string text;
  if (Status status = ReadArgument("@" + file, text, force); !status.IsOk()) return status;
  std::string problem;
  if (ParseCallFile(text, call, problem)) return {};
  return {ExitCode::kIo, file + " is not a recorded call: " + problem};
}

RequestFunction FunctionOf(const RecordedCall& call) {
  for (const RequestFunction function :
       {RequestFunction::kReflect, RequestFunction::kGetReports, RequestFunction::kGetReportInstanceNames}) {
    if (call.function == NameOf(function)) return function;
  }
  return RequestFunction::kWhat;
}

// One service thread that makes all the calls, so that a transfer continues from file to file.
class ReplayThread {
 public:
  explicit ReplayThread(const ModuleHost& module) : module_(module) { module_.BeginThread(); }
  ~ReplayThread() { module_.EndThread(provider_data_); }
  ReplayThread(const ReplayThread&) = delete;
  ReplayThread& operator=(const ReplayThread&) = delete;

  // The parser has built the block once already, so BlockFromJson succeeds.
  RecordedCall Call(const RecordedCall& recorded) {
    RawBlock block;
    std::string ignored;
    (void)BlockFromJson(recorded.block, block, ignored);
    krx_element* const kept = block.ProviderData();
    if (kept != nullptr) kept->value = provider_data_;
    const CallResult answer = module_.Call(FunctionOf(recorded), block.Raw(), recorded.input);
    if (kept != nullptr) provider_data_ = kept->value;
    RecordedCall now = recorded;
    now.result = answer.result;
    now.state_word = kept != nullptr && FunctionOf(recorded) == RequestFunction::kGetReports ? StateWordOf(kept->value)
                                                                                             : std::nullopt;
    now.reply = answer.reply;
    return now;
  }

 private:
  const ModuleHost& module_;
  void* provider_data_ = nullptr;
};

std::string WordText(const std::optional<std::uint32_t>& word) {
  return word.has_value() ? std::to_string(*word) : "none";
}

std::vector<std::string> Compare(const RecordedCall& recorded, const RecordedCall& now, const Options& options) {
  std::vector<std::string> differences;
  if (recorded.result != now.result) {
    differences.push_back("result: recorded " + std::to_string(recorded.result) + ", now " +
                          std::to_string(now.result));
  }
  if (recorded.state_word != now.state_word) {
    differences.push_back("state word: recorded " + WordText(recorded.state_word) + ", now " +
                          WordText(now.state_word));
  }
  std::optional<std::string> before = recorded.reply;
  std::optional<std::string> after = now.reply;
  if (before.has_value()) before = WithoutAttributes(*before, options.ignored);
  if (after.has_value()) after = WithoutAttributes(*after, options.ignored);
  const std::string diff = ReplyDiff(before, after);
  if (!diff.empty()) differences.push_back(diff);
  return differences;
}

Status ReplayAll(const ModuleHost& module, const Options& options, const std::vector<std::string>& files,
                 std::vector<Replayed>& replayed) {
  ReplayThread thread(module);
  for (const std::string& file : files) {
    RecordedCall recorded;
    if (Status status = ReadCall(file, options.force, recorded); !status.IsOk()) return status;
    replayed.push_back({file, recorded.function, Compare(recorded, thread.Call(recorded), options)});
  }
  return {};
}

Status StatusOf(const std::vector<Replayed>& replayed) {
  const auto differs = [](const Replayed& call) { return !call.differences.empty(); };
  const auto count = std::count_if(replayed.begin(), replayed.end(), differs);
  if (count == 0) return {};
  return {ExitCode::kFinding,
          std::to_string(count) + " of " + std::to_string(replayed.size()) + " calls differ from their recording"};
}

std::string Indented(const std::string& lines) {
  std::string text = "  ";
  for (const char c : lines) text += c == '\n' ? "\n  " : std::string(1, c);
  return text;
}

std::string ToText(const std::vector<Replayed>& replayed, const Output& output) {
  std::string text;
  for (const Replayed& call : replayed) {
    text += Visible(call.file) + ": " + call.function + " ";
    text += call.differences.empty() ? output.Paint(Style::kGood, "as recorded") : output.Paint(Style::kBad, "differs");
    text += "\n";
    for (const std::string& difference : call.differences) text += Indented(difference) + "\n";
  }
  return text;
}

Json ToJson(const std::vector<Replayed>& replayed, const Status& status) {
  Json json = {{"calls", Json::Array()}};
  for (const Replayed& call : replayed) {
    Json item;
    SetText(item, "file", call.file);
    item["function"] = call.function;
    item["differences"] = call.differences;
    json["calls"].Append(item);
  }
  json["exitCode"] = static_cast<int>(status.Code());
  return json;
}

Status Replay(Context& context, const Values& values) {
  Options options;
  options.call.module_path = values.Text("--module");
  options.paths = values.Texts("FILE");
  options.ignored = values.Texts("--ignore");
  options.force = values.Flag("--force");
  std::vector<std::string> files;
  if (Status status = FilesOf(options, files); !status.IsOk()) return status;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  std::vector<Replayed> replayed;
  if (Status status = ReplayAll(*module, options, files, replayed); !status.IsOk()) return status;
  const Status status = StatusOf(replayed);
  return ShowResult(
      context, values, [&] { return ToJson(replayed, status); }, [&] { return ToText(replayed, context.output); },
      status);
}

constexpr Parameter kParameters[] = {
    {.name = "FILE",
     .kind = ValueKind::kFile,
     .help = "Recorded calls in their order; of a directory, its .json files; - for standard input",
     .is_required = true,
     .is_repeatable = true},
    {.name = "--ignore",
     .kind = ValueKind::kText,
     .value = "NAME,...",
     .help = "Attributes of the reply that may differ, such as version,date",
     .is_repeatable = true,
     .is_list = true},
    {.name = "--json", .help = "Print the differences as JSON"},
    {.name = "--force", .help = "Also read files of other users"},
};

constexpr Example kReplayExamples[] = {
    {"qxctl module replay calls/", "Repeat the calls of a directory and compare the replies"},
    {"qxctl module replay call.json --ignore version,date", "Compare two builds without version and date"},
};

}  // namespace

constinit const Command kReplayCommand = {.words = "module replay",
                                          .help = "Repeat recorded calls and compare the results",
                                          .run = Replay,
                                          .parameters = {kParameters, kModuleParameters},
                                          .examples = kReplayExamples};

}  // namespace qx::ctl
