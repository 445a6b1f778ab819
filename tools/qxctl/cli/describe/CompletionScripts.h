// The completion scripts without their tables. The build makes the definitions from completion.bash, .zsh and .fish.
#pragma once

namespace qx::ctl {

extern const char kCompletionBash[];
extern const char kCompletionZsh[];
extern const char kCompletionFish[];

}  // namespace qx::ctl
