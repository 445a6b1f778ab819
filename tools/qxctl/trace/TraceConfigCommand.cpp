// Prints each setting of the traces with the file and section, or the environment variable, that it comes from.
#include "tools/qxctl/trace/TraceConfigCommand.h"

#include <filesystem>
#include <memory>

#include "debug/tools/TraceSettingSources.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/trace/TraceText.h"

namespace qx::ctl {

namespace {

using debug::SettingSource;

const char* KindName(SettingSource::Kind kind) {
  switch (kind) {
    case SettingSource::Kind::kDefault:
      return "default";
    case SettingSource::Kind::kEnvironment:
      return "environment";
    case SettingSource::Kind::kFile:
      return "file";
    case SettingSource::Kind::kComputed:
      return "computed";
  }
  return "";
}

// "default", "environment QX_LOG_DEBUG_LEVEL", "FileDebugLevel in [QxTrace] of /etc/.../a.ini"
std::string SourceText(const SettingSource& source) {
  if (source.kind == SettingSource::Kind::kEnvironment) return "environment " + source.name;
  if (source.kind != SettingSource::Kind::kFile) return KindName(source.kind);
  return source.name + " in [" + VisibleText(source.section) + "] of " + VisibleText(source.file);
}

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

std::string ToText(const std::vector<SettingSource>& sources) {
  constexpr std::size_t kNameWidth = 20;
  constexpr std::size_t kValueWidth = 18;
  std::string text;
  for (const SettingSource& source : sources) {
    text += Padded(source.setting, kNameWidth) + Padded(VisibleText(source.value), kValueWidth) + "  " +
            SourceText(source) + "\n";
  }
  return text;
}

Json ToJson(const std::string& application, const std::string& directory, const std::vector<SettingSource>& sources) {
  Json document = {{"application", application}, {"directory", directory}, {"settings", Json::Array()}};
  for (const SettingSource& source : sources) {
    Json setting = {{"setting", source.setting}, {"value", source.value}, {"source", KindName(source.kind)}};
    if (source.kind == SettingSource::Kind::kEnvironment) setting["variable"] = source.name;
    if (source.kind == SettingSource::Kind::kFile) {
      setting["key"] = source.name;
      setting["section"] = source.section;
      setting["file"] = source.file;
    }
    document["settings"].Append(setting);
  }
  return document;
}

Status Config(Context& context, const Values& values) {
  const std::string application = values.Text("--app", "QXRemConXfer");
  const std::string directory = values.Text("--directory", debug::kTraceConfigDirectory);
  const std::vector<SettingSource> sources = debug::ReadSettingSources(application, directory);
  return ShowResult(
      context, values, [&] { return ToJson(application, directory, sources); }, [&] { return ToText(sources); });
}

constexpr Parameter kParameters[] = {
    {.name = "--app",
     .kind = ValueKind::kText,
     .value = "NAME",
     .help = "Name of the application",
     .default_value = "QXRemConXfer"},
    {.name = "--directory",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the settings files, instead of the system's"},
    {.name = "--json", .help = "Print the settings as JSON"},
};

constexpr Example kTraceConfigExamples[] = {
    {"qxctl trace config", "Print the settings of the module's traces"},
    {"qxctl trace config --app QxTrace", "Print those of another application"},
};

}  // namespace

constinit const Command kTraceConfigCommand = {.words = "trace config",
                                               .help = "Print each trace setting and where it comes from",
                                               .run = Config,
                                               .parameters = {kParameters},
                                               .examples = kTraceConfigExamples};

}  // namespace qx::ctl
