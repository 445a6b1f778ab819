#!/bin/sh
# install.sh BUILD ROOT : stages what BUILD installs below ROOT, which it removes first. Prints only failures.
set -eu
rm -rf "$2"
DESTDIR=$2 cmake --install "$1" >"$2.log" 2>&1 || { cat "$2.log"; exit 1; }
