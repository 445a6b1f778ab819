#!/usr/bin/env bats
# Builds the examples against the staged tree as their readers do, and runs them.

setup_file() {
  load support
  export EXAMPLES=$BATS_FILE_TMPDIR/examples
  cp -r "$QX_SOURCE_DIR/examples" "$EXAMPLES"
  for example in agent agent-c host-c; do
    cmake -S "$EXAMPLES/$example" -B "$EXAMPLES/$example/build" -DCMAKE_PREFIX_PATH="$QX_PREFIX" \
      -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
    cmake --build "$EXAMPLES/$example/build"
    make -C "$EXAMPLES/$example"
  done
}

setup() {
  load support
  cd "$BATS_TEST_TMPDIR"
  export TMPDIR=$BATS_TEST_TMPDIR/temporary
  mkdir "$TMPDIR"
  agent=$EXAMPLES/agent/build/agent
  host=$EXAMPLES/host-c/build/host
  client=$EXAMPLES/client-python/fetch_report.py
}

records=$'09:00 load 0.12\n09:01 <load> & "more" ]]> 0.31\n09:02 k\u00e4lte 0.25'

write_records() {
  mapfile -t lines <<<"$records"
  apart "$agent" "${lines[@]}"
}

@test "the agents in C and Python write what the one in C++ writes" {
  mkdir Reports
  mapfile -t texts <<<"$records"
  agents=("$EXAMPLES/agent-c/build/agent" "$EXAMPLES/agent-c/agent")
  [ -n "$QX_CROSS" ] || agents+=("$EXAMPLES/agent-python/agent.py")
  for agent in "${agents[@]}"; do
    rm -f Reports/*
    LD_LIBRARY_PATH=$QX_LIBRARIES PYTHONPATH=$QX_PREFIX/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 \
      apart "$agent" "${texts[@]}"
    run apart "$host" example
    [ "$output" = "$records" ]
    LD_LIBRARY_PATH=$QX_LIBRARIES PYTHONPATH=$QX_PREFIX/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 \
      run apart "$agent" $'two\nlines'
    [ "$status" -eq 1 ]
    [[ "$output" == agent*": a record contains a line feed at offset 3, at which readers would end it" ]]
  done
}

@test "the host in C prints what the agent writes" {
  write_records
  run apart "$host" example
  [ "$status" -eq 0 ]
  [ "$output" = "$records" ]
}

@test "the Python client prints what the agent writes" {
  needs_own_python
  write_records
  run apart "$client" example "$QX_MODULE_FILE"
  [ "$status" -eq 0 ]
  [ "$output" = "$records" ]
}

@test "the programs that make and pkg-config build do the same" {
  agent=$EXAMPLES/agent/agent
  write_records
  run apart "$EXAMPLES/host-c/host" example "$QX_MODULE_FILE"
  [ "$status" -eq 0 ]
  [ "$output" = "$records" ]
}

@test "a report of several chunks arrives whole and in order" {
  for i in 1 2 3; do
    seq -f "$i %g: $(printf '%0400d' 0)" 1 1500 | xargs -d '\n' "$EXAMPLES/agent/agent" >/dev/null
  done
  "$QX_PREFIX/bin/qxctl" report cat Reports/example | tr -d '\r' >expected
  "$QX_PREFIX/bin/qxctl" report create Reports/long --slots 9000
  seq -f "%g: $(printf '%0400d' 0)" 1 9000 | "$QX_PREFIX/bin/qxctl" report append Reports/long -
  apart "$host" example "$QX_MODULE_FILE" | cmp - expected
  [ "$(wc -l <expected)" -eq 100 ]
  "$QX_PREFIX/bin/qxctl" report cat Reports/long | tr -d '\r' >expected
  [ "$(wc -c <expected)" -gt 3000000 ]
  apart "$host" long "$QX_MODULE_FILE" | cmp - expected
  [ -n "$QX_CROSS" ] || apart "$client" long "$QX_MODULE_FILE" | cmp - expected
}

@test "a host does not change the trace directory and leaves nothing" {
  write_records
  mkdir traces && echo kept >traces/log.qxremconxfer
  QX_LOG_RINGBUF_DIR=$PWD/traces apart "$host" example "$QX_MODULE_FILE"
  [ -n "$QX_CROSS" ] || QX_LOG_RINGBUF_DIR=$PWD/traces apart "$client" example "$QX_MODULE_FILE"
  [ "$(cat traces/log.qxremconxfer)" = kept ]
  [ -z "$(ls -A "$TMPDIR")" ]
}

@test "a report that does not exist is an error" {
  run apart "$host" none
  [ "$status" -eq 1 ]
  [[ "$output" == *"result 12, <Error Msg="*"could not be read"*"LastError=\"2\""* ]]
  [ -z "$QX_CROSS" ] || return 0
  run apart "$client" none "$QX_MODULE_FILE"
  [ "$status" -eq 1 ]
  [[ "$output" == "fetch_report.py: "*"could not be read" ]]
}

@test "a module that does not exist is an error" {
  run "$host" example "$BATS_TEST_TMPDIR/none.so"
  [ "$status" -eq 1 ]
  [[ "$output" == "host: cannot load the module: "*"none.so"* ]]
  run "$client" example "$BATS_TEST_TMPDIR/none.so"
  [ "$status" -eq 1 ]
  [[ "$output" == "fetch_report.py: "*"none.so"* ]]
}

@test "an agent that cannot write shows the reason" {
  echo file >Reports
  run apart "$agent" record
  [ "$status" -eq 1 ]
  [[ "$output" == "agent: cannot open "*"/Reports/example: Not a directory" ]]
}

@test "a host with wrong arguments shows its usage" {
  run "$host"
  [ "$status" -eq 2 ]
  run "$host" 'a<b'
  [ "$status" -eq 2 ]
  [[ "$output" == "usage: host REPORT [MODULE]"* ]]
}
