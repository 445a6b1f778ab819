#!/usr/bin/env bats
# The sources that docs/sdk.md shows are the files of examples/.

# The text of the fenced block after a line "<!-- example: NAME -->".
shown() {
  awk -v mark="<!-- example: $1 -->" '
    $0 == mark { armed = 1; next }
    armed && /^```/ { if (inside) exit; inside = 1; next }
    inside { print }' "$QX_SOURCE_DIR/docs/sdk.md"
}

@test "docs/sdk.md shows every file of the examples unchanged" {
  cd "$QX_SOURCE_DIR/examples"
  for file in $(find . -type f -printf '%P\n'); do
    shown "$file" | diff -u "$file" -
  done
}
