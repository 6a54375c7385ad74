#!/usr/bin/env bash
# Installation: headers that do not stand alone, packages that find their files only where they were installed or
# only beside our sources, a host that cannot link, type information that is missing, symbols that leak.
#
# Called as install_test.sh BUILD_FOLDER COMPILER, when everything in the folder is built.
set -euo pipefail
build=$1
compiler=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "install test: $*" >&2
  exit 1
}

# A packager's staging folder is never the place that the files end up in.
cmake --install "$build" --prefix "$work/staging" >"$work/install.log" || fail "$(cat "$work/install.log")"
mv "$work/staging" "$work/prefix"
prefix=$work/prefix
library=$(find "$prefix" -name libvnjs.so)
config=$(find "$prefix" -name vnjsConfig.cmake)
pkgconfig() { PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name vnjs.pc)") pkg-config "$@"; }

read -ra flags <<<"$(pkgconfig --cflags vnjs)"
for header in "$prefix"/include/vnjs/*.h; do
  name=vnjs/$(basename "$header")
  grep -q "<$name>" "$prefix/include/vnjs/vnjs.h" || [[ $name =~ /(vnjs|export).h$ ]] || fail "vnjs.h lacks $name"
  "$compiler" -std=c++17 -Wall -Wextra -Werror -fsyntax-only "${flags[@]}" -include "$name" -x c++ /dev/null
done
"$compiler" -Werror -fsyntax-only "${flags[@]}" -include vnjs/host.h -x c /dev/null

read -ra flags <<<"$(pkgconfig --cflags --libs vnjs)"
"$compiler" -std=c++17 -Wall -Wextra -Wno-unused-parameter -Werror "$here/host.cpp" -o "$work/host" "${flags[@]}"
LD_LIBRARY_PATH=$(dirname "$library") "$work/host" >"$work/pkg-config.out"

cmake -S "$here/find_package" -B "$work/cmake" -DCMAKE_CXX_COMPILER="$compiler" \
  -Dvnjs_DIR="$(dirname "$config")" >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
cmake --build "$work/cmake" >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
"$work/cmake/host" >"$work/find_package.out"

for way in pkg-config find_package; do
  diff - "$work/$way.out" <<'TEXT' || fail "the host that was built with $way says something else"
log: core 1 Executing script: [1 + 1, 'two']
result: [2,"two"]
log: core 1 Executing script: ring(function () { return 'rung'; }); 'ringing'
result: "ringing"
log: core 1 Executing script: nowhere()
log: core 3 result: Error: ReferenceError: nowhere is not defined
    at host.js:1:1
exception: Uncaught ReferenceError: nowhere is not defined
callback: rung
rings: 1
caught: Failed to open file: nowhere.js No such file or directory
TEXT
done

# What leaves the library is what the headers mark, by the first name inside the namespace: no more, no less. And
# one function for hosts that use libxml2 themselves, which has no header among those that need none of libxml2's.
readelf -d "$library" | grep -q 'Library soname: \[libvnjs\.so\.1\]' || fail "wrong soname"
sed -nE 's/^(class VNJS_API|VNJS_API [^(]*\b) ?(\w+)[ (;:].*/\2/p' "$prefix"/include/vnjs/*.h |
  sort -u - <(echo xmlXPathRegisterNs) >"$work/marked"
nm -DC --defined-only "$library" | cut -d' ' -f3- |
  sed -E 's/^(vtable|typeinfo|typeinfo name) for //; s/^vnjs::(\w+).*/\1/' | sort -u >"$work/exported"
diff "$work/marked" "$work/exported" || fail "the headers mark (<) what is not exported, or hide (>) what is"

"$prefix/bin/vnjs" eval '6 * 7' | grep -qx 42 || fail "the installed program does not run"
