#!/usr/bin/env bats
# Tests the content of the web view's package: program, service, manual page.

setup() {
  load support
  cd "$BATS_TEST_TMPDIR"
  unit=$QX_PREFIX/lib/systemd/system/qxview.service
  debian=$QX_SOURCE_DIR/packaging/debian/view
}

@test "the program names its version, and its page has every option" {
  [ "$("$QX_PREFIX/bin/qxview" --version)" = "qxview $QX_VERSION" ]
  command -v scdoc || skip "there is no scdoc"
  page=$QX_PREFIX/share/man/man1/qxview.1
  run mandoc -T lint -W warning "$page"
  [ "$(grep -v 'WARNING: skipping paragraph macro: PP ' <<<"$output")" = "" ]
  "$QX_PREFIX/bin/qxview" --help | grep -o '^  \(-., \)\?--[a-z]*' | sed 's/.*--//' >options
  [ "$(wc -l <options)" -ge 9 ]
  mandoc -T ascii "$page" | col -b >text
  while read -r option; do grep -q -- "--$option" text; done <options
}

@test "the service runs without rights, and is not started at installation" {
  grep -qx 'DynamicUser=yes' "$unit"
  grep -qx 'ProtectSystem=strict' "$unit"
  grep -qx 'CapabilityBoundingSet=' "$unit"
  grep -qx 'ExecStart=/usr/bin/qxview' "$unit"
  run grep ' start .*qxview\|enable --now' "$debian/postinst"
  [ "$status" -eq 1 ]
  grep -q 'stop qxview.service' "$debian/prerm"
}

@test "systemd accepts the unit, and finds it well confined" {
  command -v systemd-analyze || skip "there is no systemd-analyze"
  sed "s|/usr/bin/qxview|$QX_PREFIX/bin/qxview|" "$unit" >qxview.service
  run systemd-analyze verify --man=no ./qxview.service
  echo "$output"
  [ "$status" -eq 0 ]
  systemd-analyze security --offline=true --threshold=20 ./qxview.service
}

@test "the package depends on the charts' library" {
  grep -q 'CPACK_DEBIAN_VIEW_PACKAGE_DEPENDS "libjs-dygraphs"' "$QX_SOURCE_DIR/cmake/QxPackages.cmake"
}
