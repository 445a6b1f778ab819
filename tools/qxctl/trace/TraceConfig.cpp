// qxctl trace config: each setting of the traces, and which file, section or variable it comes from.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "debug/tools/TraceSettingSources.h"
#include "tools/qxctl/trace/TraceCommands.h"

namespace qx::ctl {

namespace {

using debug::SettingSource;

struct Options {
  std::string app_name = "QXRemConXfer";
  std::string directory = debug::kTraceConfigDirectory;
  bool json = false;
};

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

Json ToJson(const Options& options, const std::vector<SettingSource>& sources) {
  Json document = {{"application", options.app_name}, {"directory", options.directory}, {"settings", Json::array()}};
  for (const SettingSource& source : sources) {
    Json setting = {{"setting", source.setting}, {"value", source.value}, {"source", KindName(source.kind)}};
    if (source.kind == SettingSource::Kind::kEnvironment) setting["variable"] = source.name;
    if (source.kind == SettingSource::Kind::kFile) {
      setting["key"] = source.name;
      setting["section"] = source.section;
      setting["file"] = source.file;
    }
    document["settings"].push_back(setting);
  }
  return document;
}

Status Config(Context& context, const Options& options) {
  const std::vector<SettingSource> sources = debug::ReadSettingSources(options.app_name, options.directory);
  return options.json ? context.output.Document(ToJson(options, sources)) : context.output.Data(ToText(sources));
}

}  // namespace

void AddTraceConfig(CLI::App& trace, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = *trace.add_subcommand("config", "Print each trace setting and where it comes from");
  command.add_option("--app", options->app_name, "Name of the application (default QXRemConXfer)");
  command.add_option("--directory", options->directory, "Directory of the settings files, instead of the system's")
      ->type_name("DIR");
  command.add_flag("--json", options->json, "Print them as JSON");
  command.callback([&context, options] { context.run = [&context, options] { return Config(context, *options); }; });
}

}  // namespace qx::ctl
