#include "tools/qxctl/cli/Result.h"

namespace qx::ctl {

Status ShowResult(Context& context, const Values& values, const std::function<Json()>& document,
                  const std::function<std::string()>& text, const Status& status) {
  Status printed = values.Flag("--json") ? context.output.Document(document()) : context.output.Data(text());
  return printed.IsOk() ? status : printed;
}

}  // namespace qx::ctl
