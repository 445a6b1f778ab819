// Quotes paths and names for messages, and as words of a command that an operator can paste into a shell.
#pragma once

#include <string>
#include <string_view>

namespace qx::ctl {

// The text for a message: in double quotes, with control bytes as \xHH.
//   /srv/my reports => "/srv/my reports"
[[nodiscard]] std::string Quoted(std::string_view text);

// One word of a command for sh, bash and zsh. A text of letters, digits and "/._-+:,@%=" stays as it is; any other is
// in single quotes. Control bytes need the quotes of bash and zsh: $'...'.
//   load => load    a b => 'a b'    it's => 'it'\''s'    a<LF>b => $'a\x0Ab'    (nothing) => ''
[[nodiscard]] std::string ShellWord(std::string_view text);

}  // namespace qx::ctl
