# Makes the source OUTPUT that defines the arrays of CompletionScripts.h from the scripts BASH, ZSH and FISH.
file(READ ${BASH} bash)
file(READ ${ZSH} zsh)
file(READ ${FISH} fish)
file(WRITE ${OUTPUT} "#include \"tools/qxctl/cli/describe/CompletionScripts.h\"

namespace qx::ctl {

const char kCompletionBash[] = R\"script(${bash})script\";
const char kCompletionZsh[] = R\"script(${zsh})script\";
const char kCompletionFish[] = R\"script(${fish})script\";

}  // namespace qx::ctl
")
