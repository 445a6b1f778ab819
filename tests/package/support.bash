# Helpers for all suites. The environment names the staged tree (see CMakeLists.txt).

export PKG_CONFIG_PATH=$QX_LIBRARIES/pkgconfig
include_dir=$QX_PREFIX/include/qxremconxfer

# Runs a command in a report directory of its own: "Reports" in the working directory. A registry of the machine would
# name another one, so it is hidden.
apart() {
  if [ ! -e /etc/brollan ]; then
    "$@"
    return
  fi
  local flags=(--mount)
  [ "$(id -u)" -eq 0 ] || flags=(--user --map-root-user --mount)
  unshare "${flags[@]}" sh -c 'mount -t tmpfs none /etc/brollan && exec "$@"' sh "$@"
}

# Runs this machine's Python, even if the tested programs are for another processor.
needs_own_python() {
  [ -z "$QX_CROSS" ] || skip "this machine's Python cannot load a library for another processor"
}
