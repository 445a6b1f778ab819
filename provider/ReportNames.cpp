#include "provider/ReportNames.h"

#include <string>

#include "debug/Debug.h"
#include "markup/Markup.h"
#include "provider/KrxAdapterModule.h"
#include "provider/NamesFile.h"
#include "provider/ReportTransfer.h"
#include "provider/ServerControlPaths.h"
#include "provider/TracedName.h"

namespace qx::provider {

namespace {

constexpr unsigned kErrorFileNotFound = 2;  // whatever error the system reported

std::string ReadName(const CMarkup& in) {
  std::string name = in.GetAttrib("Name");
  TraceNameDump(5, name);
  return name;
}

bool ReadNamesFile(NamesFile& file, const std::string& name) {
  std::string directory;
  CServerControlPaths::GetServerControlReportPath(directory);
  QX_TRACE(3, "\nWCSP_QX GetInstances: open instance file %s/%s.names...", directory.c_str(), ShownName(name).c_str());
  return StaysInReportDirectory(name) && file.Read(directory, name);
}

// The report name in the file was chosen by its writer. It is shown only in the trace.
void TraceHead(const NamesFile& file) {
  QX_TRACE(3, "\nWCSP_QX GetInstances:   instance file existing");
  QX_TRACE(3, "\nWCSP_QX GetInstances:   version=%d, report name=%s", file.Version(),
           ShownName(file.ReportName()).c_str());
}

void TraceInstance(const std::string& key, const std::string& name) {
  QX_TRACE(3, "\nWCSP_QX GetInstances:   entry: %s=%s", key.c_str(), name.c_str());
  QX_TRACE(3, "\nWCSP_QX GetInstances:   instance name: %s", name.c_str());
  TraceNameDump(5, name);
}

//   1=R&D  =>  <Instance Nr="1">R&amp;D</Instance>
void AddInstance(CMarkup& out, const std::string& key, const std::string& name) {
  const std::string escaped = CMarkup::EscapeTextBinary(name, 0);
  out.AddElem("Instance", nullptr, CMarkup::kAddChild);
  out.SetChildData(escaped, CMarkup::kKeepReferences);
  out.SetChildAttrib("Nr", key.c_str());
}

void AddList(const NamesFile& file, CMarkup& out, const std::string& name) {
  out.AddElem("ReportInstanceNames");
  for (const NamesFile::Instance* instance : file.Instances()) {
    TraceInstance(instance->first, instance->second);
    AddInstance(out, instance->first, instance->second);
  }
  out.SetAttrib("Name", CMarkup::EscapeTextBinary(name, 0).c_str(), CMarkup::kKeepReferences);
  out.SetAttrib("Version", file.Version());
  out.SetAttrib("NrInstances", static_cast<int>(file.Instances().size()));
}

void TraceReply(const CMarkup& out, int version) {
  QX_TRACE(4, "\nWCSP_QX GetInstances: XML output: \"%s\"", out.GetDoc().c_str());
  QX_TRACE(2, "\nWCSP_QX GetInstances:   file transferred, Version=%d, Length=%d bytes", version,
           static_cast<int>(out.GetDoc().size()));
}

int ReplyNotFound(CKrxAdapterModule& module, CMarkup& out, const std::string& name) {
  module.SetRequestError(out, "Report instance names file not found", kErrorFileNotFound);
  QX_TRACE(1, "\nWCSP_QX GetInstances: ## ERROR! The instance names file for report \"%s\" could not be found!",
           ShownName(name).c_str());
  return kRequestRefused;
}

}  // namespace

int ReplyInstanceNames(CKrxAdapterModule& module, CMarkup& in, CMarkup& out) {
  QX_TRACE(4, "\nWCSP_QX GetInstances:   XML input string: \"%s\"", in.GetDoc().c_str());
  const std::string name = ReadName(in);
  NamesFile file;
  if (!ReadNamesFile(file, name)) return ReplyNotFound(module, out, name);

  TraceHead(file);
  // Quirk: another version is not an error. No list is added; after a refusal the "Error" element stays.
  if (file.Version() == NamesFile::kVersionWithNames) AddList(file, out, name);
  TraceReply(out, file.Version());
  return kRecordsReturned;
}

}  // namespace qx::provider
