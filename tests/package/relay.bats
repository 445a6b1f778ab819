#!/usr/bin/env bats
# Tests the content of the relay's package: program, services, user, manual pages, and examples that their programs accept.

setup() {
  load support
  cd "$BATS_TEST_TMPDIR"
  examples=$QX_PREFIX/share/doc/qxrelay/examples
  debian=$QX_SOURCE_DIR/packaging/debian/relay
}

@test "the program names its version, and every command has a page that mandoc accepts" {
  [ "$("$QX_PREFIX/bin/qxrelay" --version)" = "qxrelay $QX_VERSION" ]
  command -v scdoc || skip "there is no scdoc"
  "$QX_PREFIX/bin/qxrelay" _table | grep -o '"command": "qxrelay[^"]*' | sed 's/"command": "//; s/ /-/g' >commands
  [ "$(wc -l <commands)" -ge 8 ]
  while read -r page; do
    file=$QX_PREFIX/share/man/man1/$page.1
    head -n 20 "$file" | grep -q "^\.TH \"$page\" \"1\""
    mandoc -T lint -W warning "$file" >>lint || true
  done <commands
  run grep -v "WARNING: skipping paragraph macro: PP " lint
  [ "$output" = "" ]
  grep -q 'qxrelay-send' "$QX_PREFIX/share/man/man1/qxrelay.1"
}

@test "no page of the relay names a page of qxctl for its options" {
  command -v scdoc || skip "there is no scdoc"
  run grep -n 'qxctl.*describes' "$QX_PREFIX"/share/man/man1/qxrelay-*.1
  [ "$status" -eq 1 ]
  grep -q 'qxrelay.*describes' "$QX_PREFIX/share/man/man1/qxrelay-send.1"
}

@test "nats-server accepts the configurations of the examples" {
  cp "$examples"/*.conf .
  printf '[stream]\ndomain=relay\n' >relay.ini
  "$QX_PREFIX/bin/qxrelay" host add host3 --users qxrelay-users.conf --password-file password --config relay.ini
  grep -q 'JS.relay.API.DIRECT.GET.QX' qxrelay-users.conf
  for file in server.conf site.conf; do
    run nats-server -t -c "$file"
    echo "$output"
    [ "$status" -eq 0 ]
    [[ "$output" == *"is valid"* ]]
  done
}

@test "qxrelay accepts every key of the example settings" {
  run "$QX_PREFIX/bin/qxrelay" check --config "$examples/host.ini"
  [[ "$output" != *"no such key"* ]]
  [[ "$output" != *"not a valid"* ]]
}

@test "services run as the user of the package, and are not started at installation" {
  grep -qx 'u qxrelay - "Report relay" /var/lib/qxrelay' "$QX_PREFIX/lib/sysusers.d/qxrelay.conf"
  for unit in send receive; do
    file=$QX_PREFIX/lib/systemd/system/qxrelay-$unit.service
    grep -qx 'User=qxrelay' "$file"
    grep -qx "ExecStart=/usr/bin/qxrelay $unit" "$file"
    run grep " start .*qxrelay-$unit\|enable --now" "$debian/postinst"
    [ "$status" -eq 1 ]
    grep -q "stop .*qxrelay-$unit.service" "$debian/prerm"
  done
}

@test "scripts of the package leave a service manager alone that does not run" {
  for action in "postinst configure" "prerm upgrade" "prerm remove" "postrm remove"; do
    mkdir -p bin && printf '#!/bin/sh\necho "%s $*" >>"%s/calls"\n' "tool" "$PWD" >bin/systemd-sysusers
    for tool in deb-systemd-helper deb-systemd-invoke systemctl; do cp bin/systemd-sysusers "bin/$tool"; done
    chmod +x bin/*
    [ ! -d /run/systemd/system ] || skip "a service manager runs here"
    PATH=$PWD/bin:$PATH DPKG_ROOT='' sh "$debian/${action% *}" "${action#* }"
  done
  run grep 'daemon-reload\|try-restart\| stop ' calls
  [ "$status" -eq 1 ]
  grep -q 'qxrelay.conf' calls
}
