# What the library and all it needs take, for ./dev footprint.

kilobytes() { echo "$(($(stat -Lc %s "$1") / 1024))"; }

# footprint_build PRESET NAME TARGET... [-- OPTION...]: prints the folder.
footprint_build() {
  local folder=$root/build/footprint-$2 preset=$1
  shift 2
  local targets=()
  while [[ $# -gt 0 && $1 != -- ]]; do targets+=("$1") && shift; done
  (cd "$root" && cmake --preset "$preset" -B "$folder" "${@:2}" && cmake --build "$folder" --target "${targets[@]}") \
    >"$folder.log" 2>&1 || fail "$(tail -n 20 "$folder.log")"
  echo "$folder"
}

# stripped BINUTILS_PREFIX LIBRARY: its size then.
stripped() {
  local copy
  copy=$(mktemp)
  "$1strip" -o "$copy" "$2"
  kilobytes "$copy"
  rm "$copy"
}

# footprint NAME PRESET BINUTILS_PREFIX SYSROOT [EMULATOR...]: the part of the page for one architecture.
footprint() {
  local name=$1 preset=$2 prefix=$3 tree=$4 whole alone library path
  shift 4
  whole=$(footprint_build "$preset" "$preset" vnjs footprint -- -DVNJS_BUILD_BENCHMARKS=ON)
  alone=$(footprint_build "$preset" "$preset-alone" vnjs -- -DVNJS_DEBUG_AGENT=OFF)
  printf '### %s\n\n| file, stripped | KB |\n|---|---|\n' "$name"
  echo "| libvnjs | $(stripped "$prefix" "$whole/engine/libvnjs.so") |"
  echo "| libvnjs, built with \`VNJS_DEBUG_AGENT=OFF\` | $(stripped "$prefix" "$alone/engine/libvnjs.so") |"
  local loader
  loader=$tree$(readelf -l "$whole/bench/footprint" | sed -n 's/.*interpreter: \(.*\)\]/\1/p')
  "$@" "$loader" --list "$whole/engine/libvnjs.so" | while read -r library _ path _; do
    [[ ! -f $tree$path ]] || echo "$(kilobytes "$tree$path") $library"
  done | sort -rn | sed -E 's/([0-9]+) (.*)/| \2 | \1 |/'
  printf '\n| first result, ms | first environment, KB | each further | each further with a worker |\n'
  printf '|---|---|---|---|\n| %s | %s | %s | %s |\n\n' $("$@" "$whole/bench/footprint")
}
