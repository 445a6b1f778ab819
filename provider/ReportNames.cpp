#include "provider/ReportNames.h"

#include <string>
#include <vector>

#include "debug/Debug.h"
#include "inifile/IniFile.h"
#include "markup/Markup.h"
#include "provider/HexDump.h"
#include "provider/KrxAdapterModule.h"
#include "provider/ReportTransfer.h"
#include "provider/ServerControlPaths.h"

namespace qx::provider {

namespace {

constexpr char kHeadSection[] = "Quaxel Report Instances";
constexpr char kNamesSection[] = "Names";
constexpr int kVersionWithNames = 1;
constexpr unsigned kErrorFileNotFound = 2;  // whatever the system says about the file

std::string ReadName(const CMarkup& in) {
  std::string name = in.GetAttrib("Name");
  QX_TRACE(5, "\n%s", NameHexDump(name.c_str()).c_str());
  return name;
}

bool OpenNamesFile(CIniFile& file, const std::string& name) {
  std::string path;
  CServerControlPaths::GetServerControlReportPath(path);
  path.append("/").append(name).append(".names");
  QX_TRACE(3, "\nWCSP_QX GetInstances: open instance file %s...", path.c_str());
  return NamesAReport(name) && file.Open(path.c_str(), true);
}

// The file's version, 0 if it has none. The name in the file is its writer's; only the trace shows it.
int ReadHead(CIniFile& file) {
  QX_TRACE(3, "\nWCSP_QX GetInstances:   instance file existing");
  const auto version = static_cast<int>(file.GetNumber(kHeadSection, "Version", 0));
  std::string name;
  (void)file.GetString(name, kHeadSection, "Name", "");  // without one it is empty
  QX_TRACE(3, "\nWCSP_QX GetInstances:   version=%d, report name=%s", version, name.c_str());
  return version;
}

void TraceInstance(const std::string& key, const std::string& name) {
  QX_TRACE(3, "\nWCSP_QX GetInstances:   entry: %s=%s", key.c_str(), name.c_str());
  QX_TRACE(3, "\nWCSP_QX GetInstances:   instance name: %s", name.c_str());
  QX_TRACE(5, "\n%s", NameHexDump(name.c_str()).c_str());
}

//   1=R&D  =>  <Instance Nr="1">R&amp;D</Instance>
void AddInstance(CMarkup& out, const std::string& key, const std::string& name) {
  const std::string escaped = CMarkup::EscapeTextBinary(name, 0);
  out.AddElem("Instance", nullptr, CMarkup::kAddChild);
  out.SetChildData(escaped, CMarkup::kKeepReferences);
  out.SetChildAttrib("Nr", key.c_str());
}

// Returns the number of instances. Quirk: a key that stands twice is listed twice, each time with its first name.
int AddInstances(CIniFile& file, CMarkup& out) {
  std::vector<std::string> keys;
  (void)file.GetEnums(keys, kNamesSection);  // false only says that there are none
  for (const std::string& key : keys) {
    std::string name;
    (void)file.GetString(name, kNamesSection, key.c_str(), "");
    TraceInstance(key, name);
    AddInstance(out, key, name);
  }
  return static_cast<int>(keys.size());
}

// The attributes follow the children because the number is known only then; where they stand in the tag is the same.
void AddList(CIniFile& file, CMarkup& out, const std::string& name, int version) {
  out.AddElem("ReportInstanceNames");
  const int count = AddInstances(file, out);
  out.SetAttrib("Name", CMarkup::EscapeTextBinary(name, 0).c_str(), CMarkup::kKeepReferences);
  out.SetAttrib("Version", version);
  out.SetAttrib("NrInstances", count);
}

void TraceReply(const CMarkup& out, int version) {
  QX_TRACE(4, "\nWCSP_QX GetInstances: XML output: \"%s\"", out.GetDoc().c_str());
  QX_TRACE(2, "\nWCSP_QX GetInstances:   file transferred, Version=%d, Length=%d bytes", version,
           static_cast<int>(out.GetDoc().size()));
}

int ReplyNotFound(CKrxAdapterModule& module, CMarkup& out, const std::string& name) {
  module.SetRequestError(out, "Report instance names file not found", kErrorFileNotFound);
  QX_TRACE(1, "\nWCSP_QX GetInstances: ## ERROR! The instance names file for report \"%s\" could not be found!",
           name.c_str());
  return kRequestRefused;
}

}  // namespace

int ReplyInstanceNames(CKrxAdapterModule& module, CMarkup& in, CMarkup& out) {
  QX_TRACE(4, "\nWCSP_QX GetInstances:   XML input string: \"%s\"", in.GetDoc().c_str());
  const std::string name = ReadName(in);
  CIniFile file;
  if (!OpenNamesFile(file, name)) return ReplyNotFound(module, out, name);

  const int version = ReadHead(file);
  // Quirk: another version is no error. There is no list, and after a refusal its element stays as it is.
  if (version == kVersionWithNames) AddList(file, out, name, version);
  file.Close();
  TraceReply(out, version);
  return kRecordsReturned;
}

}  // namespace qx::provider
