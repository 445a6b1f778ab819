// The completion scripts without their tables. The build makes the definitions from completion.bash and completion.zsh.
#pragma once

namespace qx::ctl {

extern const char kCompletionBash[];
extern const char kCompletionZsh[];

}  // namespace qx::ctl
