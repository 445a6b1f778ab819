#!/usr/bin/env bats
# Compares the module's exported surface with the description for its processor in packaging/abi, and checks that the comparison
# notices changes.

setup() {
  load support
  [ "$QX_COMPILER" = GNU ] || skip "the description was made with g++; other compilers describe types in other words"
  cd "$BATS_TEST_TMPDIR"
  abi=$QX_SOURCE_DIR/packaging/abi
  processor=${QX_CROSS:+-arm64}
}

# The changes that the comparison notices do not depend on the processor.
needs_own_processor() {
  [ -z "$QX_CROSS" ] || skip "checked with the compiler of this machine"
}

# Builds a library of the record store alone: store OUTPUT HEADERS FLAGS... The layout checks in its source are left out: they
# would notice a changed class before the comparison can.
store() {
  local output=$1 headers=$2
  shift 2
  sed '/^ *static_assert(.*);$/d' "$QX_SOURCE_DIR/reportfile/ReportFileBase.cpp" >ReportFileBase.cpp
  "$CXX" -std=c++20 -D_GNU_SOURCE -g -shared -fPIC -fvisibility=hidden -I"$headers" -I"$QX_SOURCE_DIR" "$@" \
    ReportFileBase.cpp -o "$output"
}

@test "the exported surface of the module has not changed" {
  run "$abi/check" "$QX_BUILT_MODULE" "$include_dir" "$abi/QXRemConXfer$processor.abi"
  echo "$output"
  echo "(script/package --abi takes over a change that is meant, for arm64 with --arch arm64)"
  [ "$status" -eq 0 ]
}

@test "the exported surface of libqxreport.so.0 has not changed" {
  run "$abi/check" "$QX_LIBRARIES/libqxreport.so.0" "$include_dir" "$abi/libqxreport$processor.abi"
  echo "$output"
  [ "$status" -eq 0 ]
}

@test "the description has no path of a machine in it" {
  ! grep -n -e "path='/" -e "filepath=" -e "comp-dir-path" "$abi/QXRemConXfer$processor.abi"
}

@test "a removed function is found" {
  needs_own_processor
  store whole.so "$include_dir"
  echo '{ local: _ZN15CReportFileBase5CloseEv; };' >without.map
  store without.so "$include_dir" -Wl,--version-script=without.map
  "$abi/write" whole.so "$include_dir" >whole.abi
  run "$abi/check" whole.so "$include_dir" whole.abi
  [ "$status" -eq 0 ]
  run "$abi/check" without.so "$include_dir" whole.abi
  [ "$status" -ne 0 ]
  [[ "$output" == *"1 Removed"* ]]
  [[ "$output" == *"CReportFileBase"*"Close"* ]]
}

@test "an added member of a class is found" {
  needs_own_processor
  store whole.so "$include_dir"
  "$abi/write" whole.so "$include_dir" >whole.abi
  cp -r "$include_dir" changed
  sed -i 's/^  CCriticalSection lock_;$/  int added_ = 0;\n&/' changed/reportfile/ReportFileBase.h
  store changed.so "$PWD/changed"
  run "$abi/check" changed.so "$PWD/changed" whole.abi
  [ "$status" -ne 0 ]
  [[ "$output" == *"type size changed from 768 to 832"*"int added_"* ]]
}
