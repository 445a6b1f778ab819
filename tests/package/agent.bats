#!/usr/bin/env bats
# Tests the content of the agent's package, the timers of qxctl, and the package scripts in a root directory of their own.

setup() {
  load support
  cd "$BATS_TEST_TMPDIR"
  unit=$QX_PREFIX/lib/systemd/system/qxagent.service
  debian=$QX_SOURCE_DIR/packaging/debian
}

# The arguments of qxctl in a unit.
command_of() { sed -n 's|^ExecStart=/usr/bin/qxctl \(.*\)|\1|p' "$QX_PREFIX/lib/systemd/system/$1"; }

@test "the program names its version, and its page has every option" {
  [ "$("$QX_PREFIX/bin/qxagent" --version)" = "qxagent $QX_VERSION" ]
  command -v scdoc || skip "there is no scdoc"
  page=$QX_PREFIX/share/man/man1/qxagent.1
  run mandoc -T lint -W warning "$page"
  [ "$(grep -v 'WARNING: skipping paragraph macro: PP ' <<<"$output")" = "" ]
  "$QX_PREFIX/bin/qxagent" --help | grep -o '^  --[a-z]*' | sed 's/.*--//' >options
  [ "$(wc -l <options)" -ge 7 ]
  mandoc -T ascii "$page" | col -b >text
  while read -r option; do grep -q -- "--$option" text; done <options
}

@test "user and directories are made as the service needs them" {
  [ "$(id -u)" -eq 0 ] || skip "only root makes files of other users"
  mkdir -p root/etc
  touch root/etc/passwd root/etc/group
  systemd-sysusers --root="$PWD/root" "$QX_PREFIX/lib/sysusers.d/qxagent.conf"
  user=$(grep -o '^qxagent:x:[0-9]*' root/etc/passwd | cut -d: -f3)
  systemd-tmpfiles --root="$PWD/root" --create "$QX_PREFIX/lib/tmpfiles.d/qxagent.conf"
  host=root/var/lib/brollan/reports/host
  [ "$(stat -c '%u %a' $host)" = "$user 755" ]
  [ "$(stat -c '%u %a' root/var/lib/brollan/reports)" = "0 755" ]
  grep -qx 'User=qxagent' "$unit"
  grep -qx "ReadWritePaths=/${host#root/}" "$unit"
  setpriv --reuid="$user" --clear-groups "$QX_PREFIX/bin/qxagent" --directory "$host" --count 1
  "$QX_PREFIX/bin/qxctl" report verify "./$host/load"
}

@test "the commands of the timers do what their units say" {
  mkdir -p Reports backups
  "$QX_PREFIX/bin/qxagent" --directory Reports/host --count 1
  read -ra backup <<<"$(command_of qxctl-backup.service)"
  apart "$QX_PREFIX/bin/qxctl" "${backup[@]/#\/var\/lib\/qxctl-backup/backups}"
  apart "$QX_PREFIX/bin/qxctl" report verify-backup backups/2*
  [[ "${backup[*]}" == *"--keep 7" ]]
  read -ra fetch <<<"$(command_of qxctl-fetch@.service)"
  export QX_MODULE=$QX_MODULE_FILE QX_LOG_RINGBUF_DIR=$PWD
  apart "$QX_PREFIX/bin/qxctl" "${fetch[@]/#%I/host/load}"
  # A second record of the agent can be equal to the first one. Then no fetch would know which is new.
  "$QX_PREFIX/bin/qxctl" report append ./Reports/host/load 'load1=next'
  apart "$QX_PREFIX/bin/qxctl" "${fetch[@]/#%I/host/load}"
  [ "$(grep -c 'load1=' records)" -eq 2 ]
}

@test "scripts start nothing, and use no service manager that does not run" {
  [ ! -d /run/systemd/system ] || skip "a service manager runs here"
  mkdir bin
  for tool in systemd-sysusers systemd-tmpfiles deb-systemd-helper deb-systemd-invoke systemctl; do
    printf '#!/bin/sh\necho "%s $*" >>"%s/calls"\n' "$tool" "$PWD" >"bin/$tool"
  done
  chmod +x bin/*
  for package in agent tools; do
    for action in "postinst configure" "prerm upgrade" "prerm remove" "postrm remove"; do
      PATH=$PWD/bin:$PATH DPKG_ROOT='' sh "$debian/$package/${action% *}" "${action#* }"
    done
  done
  run grep 'daemon-reload\|try-restart\| stop \|--now' calls
  [ "$status" -eq 1 ]
  grep -q 'systemd-tmpfiles .*qxagent.conf' calls
  grep -q 'update-state qxctl-backup.timer' calls
}
