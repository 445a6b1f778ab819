# Makes the source OUTPUT that defines the arrays of CompletionScripts.h from the scripts BASH and ZSH.
file(READ ${BASH} bash)
file(READ ${ZSH} zsh)
file(WRITE ${OUTPUT} "#include \"tools/qxctl/cli/describe/CompletionScripts.h\"

namespace qx::ctl {

const char kCompletionBash[] = R\"script(${bash})script\";
const char kCompletionZsh[] = R\"script(${zsh})script\";

}  // namespace qx::ctl
")
