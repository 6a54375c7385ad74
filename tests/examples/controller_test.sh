#!/usr/bin/env bash
# The controller's host: automations that do not start, lamps that stay off, an automation that takes the others' time,
# and an end by a signal that loses what scripts do last.
#
# Called as controller_test.sh CONTROLLER_HOST FOLDER.
set -euo pipefail
output=$(mktemp)
trap 'rm -f "$output"' EXIT
mkfifo "$output.in"
trap 'rm -f "$output" "$output.in"' EXIT
"$1" "$2" <"$output.in" >"$output" 2>&1 &
host=$!
exec 3>"$output.in"

# Waits until a line is there, at most 20 s.
expect() {
  for _ in {1..200}; do
    grep -qE "$1" "$output" && return 0
    sleep 0.1
  done
  cat "$output"
  echo "never said: $1"
  exit 1
}

echo 'publish guard/alarm 1' >&3
echo 'publish hall/motion {"lux": 10}' >&3
echo 'publish heating/plan "Oslo"' >&3
expect '^lamp/hall 80$'
expect '^lamp/hall 0$'
expect '^heating/boiler \{"target":55,"indoors":20.5,"outdoors":null\}$'
expect "guard: Event 'guard/alarm': Script took longer than 500 ms at .*guard.js:6:"
echo "eval hall lamp.set('x', 200)" >&3
expect '^no such level$'
echo 'reload hall' >&3
expect '^reloaded: $'
echo 'table' >&3
expect '^guard +running +[0-9]+ +0 +0 +1 +0 +1  Script took longer than 500 ms$'
[[ $(grep -c '^hall/state "stopped"$' "$output") == 1 ]]
kill -TERM "$host"
wait "$host"
expect '^terminated$'
[[ $(grep -c '^hall/state "stopped"$' "$output") == 2 ]]
