#!/bin/sh
# install.sh BUILD ROOT : removes ROOT, and installs the files of BUILD below it. Prints only failures.
set -eu
rm -rf "$2"
DESTDIR=$2 cmake --install "$1" >"$2.log" 2>&1 || { cat "$2.log"; exit 1; }
