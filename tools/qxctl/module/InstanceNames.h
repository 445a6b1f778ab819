// Writes a request for a report's instance names, and parses the reply.
#pragma once

#include <string>
#include <vector>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

struct Instance {
  std::string number;
  std::string name;  // as the bytes in the names file
};

// <ReportInstanceNames Name="disk"/>
std::string NamesRequestText(const std::string& report);

// The outcome of a GetReportInstanceNames call. `instances` is set if the result is kOk.
Status InstancesOf(const CallResult& call, std::vector<Instance>& instances);

}  // namespace qx::ctl
