// Checks the module: whether it is installed, built for this machine, complete, and protected from other users.
#include <dlfcn.h>
#include <elf.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/File.h"
#include "provider/ModuleExports.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/module/ChildRun.h"

namespace qx::ctl {

namespace {

constexpr double kLoadSeconds = 20;
const char kInstalledModule[] = "/opt/norrlek/QuaxelSuite/KRX/Provider/QXRemConXfer.so";

struct ElfHead {
  unsigned char ident[EI_NIDENT] = {};
  Elf64_Half type = 0;
  Elf64_Half machine = 0;
};

ElfHead HeadOf(const std::string& path) {
  ElfHead head;
  const file::Descriptor file = file::OpenRegular(path.c_str(), O_RDONLY);
  const bool is_read = file.IsOpen() && file::Read(file.Number(), &head, sizeof head).bytes == sizeof head;
  return is_read ? head : ElfHead();
}

// Why the file is not a library that this machine could load; empty if it is one.
std::string WrongKind(const std::string& path) {
  const ElfHead head = HeadOf(path);
  const ElfHead own = HeadOf("/proc/self/exe");
  if (std::string_view(reinterpret_cast<const char*>(head.ident), SELFMAG) != ELFMAG) return "it is not an ELF file";
  if (head.ident[EI_CLASS] != own.ident[EI_CLASS]) {
    return head.ident[EI_CLASS] == ELFCLASS32 ? "it is built for 32 bits" : "it is built for 64 bits";
  }
  if (head.machine != own.machine) return "it is built for the machine number " + std::to_string(head.machine);
  return "";
}

std::string MissingNames(void* library) {
  std::string missing;
  for (const char* const name : {"What", "Reflect", "GetReports", "GetReportInstanceNames", "__threadbegin",
                                 "__threadend", "__handle_version", "__stoprequest", "__free", QX_SYMBOL_CREATE_MODULE,
                                 QX_SYMBOL_DELETE_MODULE, QX_SYMBOL_PROVIDER_CLASS_FACTORY, "pAdapterModule"}) {
    if (dlsym(library, name) == nullptr) missing += std::string(missing.empty() ? "" : ", ") + name;
  }
  return missing;
}

std::string TextAt(void* library, const char* name) {
  const auto* const variable = static_cast<const char* const*>(dlsym(library, name));
  return variable != nullptr && *variable != nullptr ? *variable : "?";
}

// Loads the module, and returns "QX102 REASON", "QX104 NAMES", or, if it is complete, "QX100 NAME VERSION".
std::string Load(const std::string& path) {
  void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* const reason = dlerror();
    return std::string("QX102 ") + (reason != nullptr ? reason : "no reason given");
  }
  const std::string missing = MissingNames(library);
  std::string text = "QX100 " + TextAt(library, "DreQXObjectName") + " " + TextAt(library, "DreQXObjectVersion");
  if (!missing.empty()) text = "QX104 " + missing;
  (void)dlclose(library);
  return text;
}

// The command that checks the installed module; if no module is installed, the command that installs it.
std::string InstalledInstead() {
  if (access(kInstalledModule, F_OK) != 0) return "apt-get install qxremconxfer";
  return std::string("qxctl doctor --module ") + kInstalledModule;
}

void CheckLoading(const std::string& path, DoctorFindings& findings) {
  constexpr std::size_t kCodeChars = 6;
  const std::string ldd = "ldd " + ShellWord(path);
  const ChildOutcome child = RunInChild(kLoadSeconds, [&] { return Load(path); });
  if (!child.trouble.empty()) {
    findings.push_back({"QX102", InQuotes(path) + ": while it is loaded: " + child.trouble, ldd});
  } else if (child.text.starts_with("QX102")) {
    findings.push_back({"QX102", child.text.substr(kCodeChars), ldd});
  } else if (child.text.starts_with("QX104")) {
    findings.push_back({"QX104", InQuotes(path) + " lacks " + child.text.substr(kCodeChars), InstalledInstead()});
  } else {
    findings.push_back({"QX100", InQuotes(path) + " loads: " + child.text.substr(kCodeChars), ""});
  }
}

}  // namespace

void CheckModule(const DoctorPlaces& places, DoctorFindings& findings) {
  std::error_code error;
  const std::string path = std::filesystem::absolute(places.module, error).string();
  if (path != kInstalledModule) {
    findings.push_back({"QX106", "checked " + InQuotes(path) + ", not " + InQuotes(kInstalledModule),
                        std::string("qxctl doctor --module ") + kInstalledModule});
  }
  if (access(path.c_str(), F_OK) != 0) {
    findings.push_back({"QX101", "there is no " + InQuotes(path), InstalledInstead()});
    return;
  }
  if (const std::string open = WritableByOthers(path); !open.empty()) {
    findings.push_back({"QX105", InQuotes(open) + " can be written by everybody", "chmod o-w " + ShellWord(open)});
  }
  if (const std::string wrong = WrongKind(path); !wrong.empty()) {
    findings.push_back({"QX103", InQuotes(path) + ": " + wrong, "apt-get install --reinstall qxremconxfer"});
  } else {
    CheckLoading(path, findings);
  }
}

}  // namespace qx::ctl
