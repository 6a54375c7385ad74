#!/usr/bin/env bash
# Examples that fail, that no longer say what they said, or that do not go on where they stopped: one that stores
# something is run twice.
#
# Called as example_test.sh VNJS_PROGRAM EXAMPLE.
set -euo pipefail
vnjs=$1
example=$2
storage=$(mktemp -d)
trap 'rm -rf --one-file-system "$storage"' EXIT
cp "$(dirname "$example")"/{.syscommands,*.*} "$storage"

run() { "$vnjs" run --storage "$storage" "$example" 2>&1; }
run >"$storage/log"
[[ -z $(ls "$storage/storage") ]] || { echo '--- once more' && run; } >>"$storage/log"

# Lines begin with time, level and module.
sed -E 's/^[0-9:.]+ ([a-z]+) +core  /\1 /; s/^info //' "$storage/log" |
  diff -u "$(dirname "$0")/$(basename "$example" .js).txt" -
