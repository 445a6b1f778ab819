// The documents of a request for a report's instance names: the request and the reply.
#pragma once

#include <string>
#include <vector>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

struct Instance {
  std::string number;
  std::string name;  // the bytes in the names file
};

// <ReportInstanceNames Name="disk"/>
std::string NamesRequestText(const std::string& report);

// The outcome of a GetReportInstanceNames call. `instances` is set on kOk.
Status InstancesOf(const CallResult& call, std::vector<Instance>& instances);

}  // namespace qx::ctl
