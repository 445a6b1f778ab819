#!/usr/bin/env bats
# Checks that the sources in docs/sdk.md are the files of examples/, and the configurations in docs/relay.md those of the package.

# The text of the fenced block after a line "<!-- example: NAME -->" in a page, docs/sdk.md if none is named.
shown() {
  awk -v mark="<!-- example: $1 -->" '
    $0 == mark { armed = 1; next }
    armed && /^```/ { if (inside) exit; inside = 1; next }
    inside { print }' "$QX_SOURCE_DIR/docs/${2:-sdk.md}"
}

@test "docs/sdk.md shows every file of the examples unchanged" {
  cd "$QX_SOURCE_DIR/examples"
  for file in $(find . -type f -printf '%P\n'); do
    shown "$file" | diff -u "$file" -
  done
}

@test "docs/relay.md shows the configurations of the servers unchanged" {
  cd "$QX_SOURCE_DIR/packaging/examples/qxrelay"
  for file in server.conf site.conf; do
    shown "$file" relay.md | diff -u "$file" -
  done
}
