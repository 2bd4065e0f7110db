# Sourced by the other scripts: what they all do the same way.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ] && [ -z "${NO_COLOR:-}" ]; then bold=$'\e[1m' plain=$'\e[0m'; else bold='' plain=''; fi
say() { printf '%s== %s%s\n' "$bold" "$*" "$plain"; }
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# configure PRESET: through ccache where there is one.
configure() {
  local launcher=()
  if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
  (cd "$root" && CCACHE_BASEDIR=$root cmake --preset "$1" "${launcher[@]}" >"$root/build/$1.configure.log" 2>&1) || {
    cat "$root/build/$1.configure.log" >&2
    die "cannot configure preset $1"
  }
}

# build PRESET [TARGET…]
build() {
  local preset=$1
  shift
  mkdir -p "$root/build"
  [ -f "$root/build/$preset/build.ninja" ] || configure "$preset"
  CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1 ninja -C "$root/build/$preset" -j "$jobs" "$@" || die "preset $preset does not build"
}
