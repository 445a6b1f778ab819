#!/usr/bin/env bats
# Compiles every installed header in a translation unit of its own, with the strictest warnings, with each installed compiler.

setup() {
  load support
  cd "$include_dir"
  warnings="-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Wno-pragma-once-outside-header"
}

# each COMPILER FLAGS HEADER... : compiles the headers, two at a time.
each() {
  local compiler=$1 flags=$2
  shift 2
  command -v "$compiler" >/dev/null || skip "there is no $compiler"
  printf '%s\n' "$@" | xargs -P 2 -I {} sh -c 'printf "#include \"%s\"\n" "$1" | $2 -I. -fsyntax-only -' \
    sh {} "$compiler $flags $warnings"
}

@test "every header compiles alone as C++20 with g++" {
  warnings=${warnings/ -Wno-pragma-once-outside-header/}
  each g++ "-std=c++20 -x c++" $(find . -name '*.h' -printf '%P\n')
}

@test "every header compiles alone as C++20 with clang++" {
  each clang++ "-std=c++20 -x c++" $(find . -name '*.h' -printf '%P\n')
}

@test "the headers for hosts compile alone as C11 with gcc and clang" {
  warnings=${warnings/ -Wno-pragma-once-outside-header/}
  each gcc "-std=c11 -x c" provider/KrxGenData.h provider/ModuleExports.h
  each clang "-std=c11 -x c" provider/KrxGenData.h provider/ModuleExports.h
}

@test "the header for agents in C compiles alone as C99 with gcc and clang" {
  warnings="${warnings/ -Wno-pragma-once-outside-header/} -pedantic-errors"
  each gcc "-std=c99 -x c" sdk/qxreport.h
  each clang "-std=c99 -x c" sdk/qxreport.h
}

@test "under C++17 the headers for agents say what they need" {
  for header in sdk/Writer.h sdk/Reader.h sdk/Error.h reportfile/ReportFileBase.h; do
    run sh -c "echo '#include \"$header\"' | $CXX -std=c++17 -x c++ -I. -fsyntax-only -"
    [ "$status" -ne 0 ]
    [[ "$output" == *"QXRemConXfer needs C++20: compile with -std=c++20"* ]]
  done
}

@test "every header that the architecture page lists is installed" {
  for header in base/CriticalSection debug/Debug debug/DebugTraceConfig debug/SysLogTraces inifile/IniFile \
    markup/Markup process/Process provider/FileTransferProvider provider/KrxAdapterModule provider/KrxGenData \
    provider/KrxRequestParams provider/ModuleExports provider/QXString provider/ServerControlPaths \
    provider/ThreadData registry/Registry registry/RegistryNode registry/StrMap reportfile/Directory \
    reportfile/ReportFileBase sdk/Error sdk/Reader sdk/Writer sdk/qxreport; do
    [ -f "$header.h" ] || { echo "no $header.h"; false; }
  done
}
