#!/usr/bin/env bats
# Tests the places of the installed files, and that the programs find the module and the libraries.

setup() {
  load support
  cd "$BATS_TEST_TMPDIR"
}

@test "the module is at the path that it names" {
  needs_own_python
  run env QX_LOG_RINGBUF_DIR="$PWD" python3 -c '
import ctypes, sys
print(ctypes.c_char_p.in_dll(ctypes.CDLL(sys.argv[1]), "DreQXObjectPath").value.decode())' "$QX_MODULE_FILE"
  [ "$status" -eq 0 ]
  [ "$QX_ROOT$output.so" = "$QX_MODULE_FILE" ]
}

@test "CMake, pkg-config, the module and qxctl agree on the version" {
  [ "$(pkg-config --modversion qxremconxfer)" = "$QX_VERSION" ]
  [ "$("$QX_PREFIX/bin/qxctl" --version)" = "qxctl $QX_VERSION" ]
  run "$QX_PREFIX/bin/qxctl" module what --module "$QX_MODULE_FILE"
  [[ "$output" == *"<QXRemConXfer version=\"$QX_VERSION\""* ]]
  cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(look LANGUAGES C)
find_package(QXRemConXfer REQUIRED)
message(STATUS "version=${QXRemConXfer_VERSION} module=${QXRemConXfer_MODULE}")
END
  run cmake -B build -DCMAKE_PREFIX_PATH="$QX_PREFIX"
  [ "$status" -eq 0 ]
  [[ "$output" == *"version=$QX_VERSION module=$QX_MODULE_FILE"* ]]
}

@test "a program that needs a later version fails to configure" {
  cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(look LANGUAGES C)
find_package(QXRemConXfer 99.0 REQUIRED)
END
  run cmake -B build -DCMAKE_PREFIX_PATH="$QX_PREFIX"
  [ "$status" -ne 0 ]
  [[ "$output" == *"compatible"*"99.0"* ]]
}

@test "find_package finds the components that there are and no others" {
  cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(look LANGUAGES C)
find_package(QXRemConXfer REQUIRED COMPONENTS sdk qxreport ${MORE})
END
  run cmake -B build -DCMAKE_PREFIX_PATH="$QX_PREFIX"
  [ "$status" -eq 0 ]
  run cmake -B build -DCMAKE_PREFIX_PATH="$QX_PREFIX" -DMORE=nothing
  [ "$status" -ne 0 ]
  [[ "$output" == *"nothing"* ]]
}

@test "pkg-config names the path of the module" {
  [ "$QX_ROOT$(pkg-config --variable=module qxremconxfer)" = "$QX_MODULE_FILE" ]
}

@test "pkg-config finds a moved tree" {
  cp -r "$QX_PREFIX" moved
  export PKG_CONFIG_PATH=$PWD/moved${QX_LIBRARIES#"$QX_PREFIX"}/pkgconfig
  printf '#include "reportfile/ReportFileBase.h"\nint main() { return CReportFileBase().Close() ? 0 : 1; }\n' >main.cpp
  for flag in $(pkg-config --cflags-only-I --libs-only-L qxremconxfer); do
    [[ "$(realpath "${flag:2}")" == "$PWD/moved/"* ]]
  done
  "$CXX" -std=c++20 $(pkg-config --cflags qxremconxfer) main.cpp $(pkg-config --libs qxremconxfer) -o program
  ./program
}

@test "a program's own trace object replaces the installed one" {
  cat >main.cpp <<'END'
#include <cstdio>
#include "debug/Debug.h"
#include "inifile/IniFile.h"
#include "markup/Markup.h"
#include "process/Process.h"
#include "registry/Registry.h"
#include "reportfile/ReportFileBase.h"
__attribute__((init_priority(101))) CDebug Debug;
int main() {
  CReportFileBase store;
  CMarkup document;
  const bool is_open = store.OpenRead("/nonexistent/report");
  Debug.Init("OwnObject");
  QX_TRACE(1, "\nMAIN Main           : %s", "traced");
  return is_open || !document.SetDoc("<a/>") ? 1 : 0;
}
END
  "$CXX" -std=c++20 $(pkg-config --cflags qxremconxfer) main.cpp $(pkg-config --libs qxremconxfer) -o program
  QX_LOG_DEBUG_LEVEL=1 QX_LOG_RINGBUF_DIR=$PWD ./program
  grep -q traced log.ownobject
}

@test "the package makes the trace directory, and only root may write it" {
  mkdir module
  (umask 077
   cmake -DCPACK_COMPONENTS_ALL=module -DCPACK_DEBIAN_MODULE_PACKAGE_NAME=qxremconxfer -DCPACK_TEMPORARY_DIRECTORY="$PWD" \
     -DCPACK_QX_DEBIAN_DIR="$QX_SOURCE_DIR/packaging/debian" -P "$QX_SOURCE_DIR/packaging/debian/finish.cmake")
  [ "$(stat -c %a module/var/log/brollan)" = 755 ]
}

@test "manual pages of qxctl and each format, and completions are installed" {
  command -v scdoc || skip "there is no scdoc"
  for source in "$QX_SOURCE_DIR"/docs/man/*.scd; do
    page=$(basename "$source" .scd)
    [[ "$page" != qxrelay* && "$page" != qxview* ]] || continue  # in relay.bats and view.bats
    head -n 20 "$QX_PREFIX/share/man/man${page##*.}/$page" | grep -q "^\.TH \"${page%.*}\" \"${page##*.}\""
  done
  "$QX_PREFIX/bin/qxctl" _table | grep -o '"command": "qxctl [^"]*' | sed 's/"command": "//; s/ /-/g' >commands
  [ "$(wc -l <commands)" -gt 40 ]
  while read -r page; do
    head -n 20 "$QX_PREFIX/share/man/man1/$page.1" | grep -q "^\.TH \"$page\" \"1\""
  done <commands
  bash -n "$QX_PREFIX/share/bash-completion/completions/qxctl"
  head -n 1 "$QX_PREFIX/share/zsh/vendor-completions/_qxctl" | grep -qx '#compdef qxctl'
  fish -n "$QX_PREFIX/share/fish/vendor_completions.d/qxctl.fish"
}

@test "every library can be linked as a whole into an agent's shared library" {
  "$CXX" -shared -o plugin.so -L"$QX_LIBRARIES" -Wl,--whole-archive -lqx_reportfile -lqx_paths -lqx_markup \
    -lqx_inifile -lqx_registry -lqx_debug -lqx_trace_object -lqx_process -lqx_base -Wl,--no-whole-archive -Wl,-z,defs
}

@test "an agent's shared library exports only the report store" {
  "$CXX" -shared -o plugin.so -L"$QX_LIBRARIES" -Wl,--whole-archive -lqx_reportfile -lqx_paths -lqx_markup \
    -lqx_inifile -lqx_registry -lqx_debug -lqx_trace_object -lqx_process -lqx_base -Wl,--no-whole-archive
  run bash -c "nm -DC --defined-only plugin.so | cut -d' ' -f3- | grep -v -e '^CReportFileBase::' -e '^std::' -e ' std::'"
  [ "$output" = "" ]
}
