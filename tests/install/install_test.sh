#!/usr/bin/env bash
# Installation: headers that do not stand alone, packages that find their files only where they were installed or
# only beside our sources, a host that cannot link, symbols that leak.
#
# Called as install_test.sh BUILD_FOLDER COMPILER, when everything in the folder is built. What was built for another
# machine, against packages in a folder, runs in the emulator.
set -euo pipefail
build=$1
compiler=$2
cached() { sed -n "s/^$1:[^=]*=//p" "$build/CMakeCache.txt"; }
sysroot=$(cached VNJS_SYSROOT)
other=() run=() tool=
if [[ -n $sysroot ]]; then
  other=(--sysroot="$sysroot") run=(qemu-arm -L "$sysroot") tool=${compiler%g++}
fi
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
example=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../examples/host" && pwd)
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
  grep -q "<$name>" "$prefix"/include/vnjs/{vnjs,runner}.h || [[ $name =~ /(vnjs|runner|export).h$ ]] ||
    fail "vnjs.h and runner.h lack $name"
  "$compiler" -std=c++17 "${other[@]}" -Wall -Wextra -Werror -fsyntax-only "${flags[@]}" -include "$name" -x c++ /dev/null
done
"$compiler" "${other[@]}" -Werror -fsyntax-only "${flags[@]}" -include vnjs/host.h -x c /dev/null

# Without a header of the engine.
for name in vnjs/runner.h vnjs/automation.h; do
  "$compiler" -std=c++17 "${other[@]}" -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" -include "$name" -x c++ /dev/null
done

read -ra flags <<<"$(pkgconfig --cflags --libs vnjs)"
"$compiler" -std=c++17 -fvisibility=hidden "${other[@]}" -x c++ "$example/main.cc" "$example/host_functions.cc" -x none -o "$work/pkg-config" "${flags[@]}"
toolchain=$(cached CMAKE_TOOLCHAIN_FILE)
cmake -G Ninja -S "$example" -B "$work/cmake" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_TOOLCHAIN_FILE="${toolchain:+$(cd "$here/../.." && realpath "$toolchain")}" -DVNJS_SYSROOT="$sysroot" -Dvnjs_DIR="$(dirname "$config")" \
  >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
cmake --build "$work/cmake" >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
for host in pkg-config cmake/main; do
  said=$(LD_LIBRARY_PATH=$(dirname "$library") "${run[@]}" "$work/$host" 2>&1)
  [[ $said == *'core: a second later'*42 ]] || fail "the example host, $host, says: $said"
done
said=$(LD_LIBRARY_PATH=$(dirname "$library") "${run[@]}" "$work/cmake/extension" 2>/dev/null)
lamps=$(printf 'The lamp in the %s is %s.\n' garage on hall on hall off hall on)
[[ $said == "$lamps" ]] || fail "the example of an extension says: $said"

# The plain host functions, with both packages: a host of eight lines, and one that a signal ends.
read -ra flags <<<"$(pkgconfig --cflags --libs vnjs-host)"
controller=$(cd "$here/../../examples/controller_host" && pwd)
"$compiler" -std=c++17 "${other[@]}" -x c++ "$controller/main.cc" -x none -o "$work/controller" "${flags[@]}" -pthread
cmake -G Ninja -S "$controller" -B "$work/cmake" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_TOOLCHAIN_FILE="${toolchain:+$(cd "$here/../.." && realpath "$toolchain")}" -DVNJS_SYSROOT="$sysroot" -Dvnjs_DIR="$(dirname "$config")" --fresh \
  >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
cmake --build "$work/cmake" >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
for host in controller cmake/controller_host; do
  said=$(printf '%s\n' 'publish hall/motion {"lux": 10}' 'reload hall' 'table' 'quit' |
    LD_LIBRARY_PATH=$(dirname "$library") "${run[@]}" "$work/$host" "$controller" 2>&1)
  [[ $said == *'hall/state "stopped"'*'reloaded: '*heating\ \ running*'runner: hall: Stopped'* ]] ||
    fail "the controller's host, $host, says: $said"
done

# What leaves the library; "size_t" is what it is on each machine, "long" has 64 bits, and types go with their vtables. A name that goes, or says something else, takes a new
# major version.
readelf -d "$library" | grep -q 'Library soname: \[libvnjs\.so\.1\]' || fail "wrong soname"
"${tool}nm" -DC --defined-only "$library" | cut -d' ' -f3- | grep -v '^typeinfo' |
  sed -E 's/unsigned (long long|long|int)\>/size_t/g; s/\<long long\>/long/g; s/([0-9])ll\>/\1l/g' |
  LC_ALL=C sort -u | diff "$here/exported.txt" - || fail "other names are exported (>) than exported.txt lists (<)"

"${run[@]}" "$prefix/bin/vnjs" eval '6 * 7' | grep -qx 42 || fail "the installed program does not run"
[[ -s $prefix/share/vnjs/types/vnjs.d.ts && -s $prefix/share/vnjs/types/runner.d.ts ]] || fail "editors find no declarations"
