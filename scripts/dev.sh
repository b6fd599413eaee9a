#!/usr/bin/env bash
# One entry point for developers and CI. Every subcommand is idempotent and
# works from any directory.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
JOBS="${JOBS:-$(nproc)}"

# The one list of system packages (Debian 12 names); cmake/NimiobDependencies.cmake
# says what each is for.
PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config lld
  qt6-base-dev libgl-dev
  libboost-dev libboost-system-dev
  libmsgpack-cxx-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  nginx libnginx-mod-http-xslt-filter
)

log() { printf '[dev.sh] %s\n' "$*" >&2; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Prints the packages of the list that are not installed, one a line.
missing_packages() {
  command -v dpkg-query >/dev/null || return 0
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
  done
}

cmd_deps() {
  local missing=()
  mapfile -t missing < <(missing_packages)
  if [ ${#missing[@]} -eq 0 ]; then
    log "all ${#PACKAGES[@]} packages present"
    return 0
  fi
  log "installing: ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# configure DIR [cmake args...]: configures once; later calls only build.
# A configure that stopped half-way (a dependency missing) leaves
# CMakeCache.txt without build.ninja: that counts as not configured, and the
# half-made cache goes so that nothing it guessed then sticks.
configure() {
  local dir="$1"; shift
  # A directory configured with another compiler than asked for starts over:
  # CMake cannot change the compiler of an existing cache.
  local arg wanted_cxx=""
  for arg in "$@"; do
    case "$arg" in -DCMAKE_CXX_COMPILER=*) wanted_cxx="${arg#*=}" ;; esac
  done
  if [ -n "$wanted_cxx" ] && [ -f "$dir/CMakeCache.txt" ] \
    && ! grep -q "^CMAKE_CXX_COMPILER:[A-Z]*=.*${wanted_cxx}\$" "$dir/CMakeCache.txt"; then
    log "$dir was configured for another compiler; configuring it again for $wanted_cxx"
    rm -rf "$dir/CMakeCache.txt" "$dir/CMakeFiles" "$dir/build.ninja"
  fi
  [ -f "$dir/CMakeCache.txt" ] && [ -f "$dir/build.ninja" ] && return 0
  if [ -f "$dir/CMakeCache.txt" ]; then
    log "$dir was left half-configured; configuring it again"
    rm -rf "$dir/CMakeCache.txt" "$dir/CMakeFiles"
  fi
  log "configuring $dir"
  mkdir -p "$dir"
  local errors="$dir/configure-errors.log"
  if cmake -S "$ROOT" -B "$dir" -G Ninja "$@" >/dev/null 2>"$errors"; then
    cat "$errors" >&2
    return 0
  fi
  cat "$errors" >&2
  rm -rf "$dir/CMakeCache.txt" "$dir/CMakeFiles"
  local missing=() wanted
  mapfile -t missing < <(missing_packages)
  wanted="$(sed -nE 's/.*(Could not find a package configuration file provided by|Could NOT find) "?([A-Za-z0-9_]+)"?.*/\2/p' "$errors" | sort -u | xargs)"
  if [ ${#missing[@]} -gt 0 ] || [ -n "$wanted" ]; then
    log "configure failed: a dependency is missing${wanted:+ (CMake did not find: $wanted)}."
    [ ${#missing[@]} -eq 0 ] || log "packages not installed: ${missing[*]}"
    log "run 'scripts/dev.sh deps' to install them, then run this command again."
  else
    log "configure of $dir failed (errors above)."
  fi
  return 1
}

export CCACHE_BASEDIR="$ROOT"
export CCACHE_NOHASHDIR=1
export CCACHE_MAXSIZE="${CCACHE_MAXSIZE:-5G}"

build_dir() {
  local dir="$1"; shift
  configure "$dir" "$@"
  log "building $dir"
  cmake --build "$dir" -j "$JOBS"
}

# No retry: a test that fails on a loaded machine has a cause to fix, and a
# retry would hide it from CI.
run_ctest() {
  local dir="$1"; shift
  (cd "$dir" && ctest --output-on-failure -j "$JOBS" "$@")
}

# The everyday build is the fast one (README.md, "Build times"): clang when
# it is there (the fuzz targets need it anyway), the larger targets in
# batches of sources, and no benchmarks (they build optimised in their own
# directory, `bench`). The sanitizer builds use GCC, one source a unit, and
# the address-sanitizer build compiles the benchmarks too: so CI builds the
# tree with both compilers and both ways, and notices a benchmark that no
# longer builds.
build_compiler() { command -v clang++ >/dev/null && echo "-DCMAKE_CXX_COMPILER=clang++"; }

cmd_build() {
  # shellcheck disable=SC2046
  build_dir "$ROOT/build" $(build_compiler) -DNIMIOB_UNITY_BUILD=ON -DNIMIOB_BUILD_BENCH=OFF
}

cmd_test() {
  cmd_deps
  cmd_build
  run_ctest "$ROOT/build" "$@"
}

cmd_asan() {
  cmd_deps
  build_dir "$ROOT/build-asan" -DNIMIOB_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_ctest "$ROOT/build-asan" "$@"
}

cmd_tsan() {
  cmd_deps
  build_dir "$ROOT/build-tsan" -DNIMIOB_SANITIZE=thread -DNIMIOB_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
  # The largest history: a thread that handled a burst still has the stack of
  # its earlier accesses, so a report names both sides and the suppressions
  # can match the Qt side of a hand-over.
  TSAN_OPTIONS="halt_on_error=1 history_size=7 second_deadlock_stack=1 suppressions=$ROOT/scripts/tsan.supp" \
    run_ctest "$ROOT/build-tsan" "$@"
}

cmd_bench() {
  cmd_deps
  build_dir "$ROOT/build-bench" -DCMAKE_BUILD_TYPE=Release -DNIMIOB_BUILD_TESTS=OFF
  local found=0
  for b in "$ROOT"/build-bench/bench/*; do
    [ -x "$b" ] && [ -f "$b" ] || continue
    found=1
    log "running $(basename "$b")"
    "$b" --benchmark_counters_tabular=true "$@"
  done
  [ $found -eq 1 ] || log "no benchmark built yet"
}

# `fuzz` fuzzes each target for FUZZ_SECONDS on its corpus; `fuzz replay`
# only builds them and runs every input of their corpora once, which is what
# CI does: the clang build is proven and no known input crashes it.
cmd_fuzz() {
  local mode="${1:-fuzz}"
  case "$mode" in fuzz|replay) ;; *) log "usage: scripts/dev.sh fuzz [replay]"; return 2 ;; esac
  cmd_deps
  local seconds="${FUZZ_SECONDS:-60}"
  local dir="$ROOT/build-fuzz"
  configure "$dir" -DCMAKE_CXX_COMPILER=clang++ -DNIMIOB_BUILD_FUZZ=ON -DNIMIOB_SANITIZE=fuzzer \
    -DNIMIOB_BUILD_TESTS=OFF -DNIMIOB_BUILD_BENCH=OFF
  # Only the fuzz targets and what they link: the rest of the tree is not fuzzed.
  log "building the fuzz targets in $dir"
  cmake --build "$dir" -j "$JOBS" -t nimiob_fuzz_targets
  local found=0
  for f in "$ROOT"/build-fuzz/fuzz/fuzz_*; do
    [ -f "$f" ] && [ -x "$f" ] || continue
    found=$((found + 1))
    local name; name="$(basename "$f")"
    local corpus="$ROOT/fuzz/corpus/${name#fuzz_}"
    mkdir -p "$corpus"
    if [ "$mode" = replay ]; then
      log "replaying $(find "$corpus" -type f | wc -l) inputs of $corpus through $name"
      # -runs=0: every input once, no new ones; a crash exits non-zero.
      "$f" -runs=0 -max_len=65536 "$corpus" >"$ROOT/build-fuzz/$name.log" 2>&1 \
        || { tail -n 30 "$ROOT/build-fuzz/$name.log" >&2; log "$name failed on its corpus"; return 1; }
    else
      log "fuzzing $name for ${seconds}s (corpus $corpus)"
      "$f" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 "$corpus" 2>&1 | tail -n 12
    fi
  done
  [ "$found" -gt 0 ] || { log "no fuzz target was built"; return 1; }
}

cmd_format() {
  local files
  mapfile -t files < <(cd "$ROOT" && git ls-files '*.cpp' '*.h' '*.hpp')
  [ ${#files[@]} -gt 0 ] || { log "nothing to check"; return 0; }
  (cd "$ROOT" && clang-format --dry-run --Werror "${files[@]}")
  log "clang-format: ${#files[@]} files clean"
}

cmd_demo() {
  cmd_deps
  cmd_build
  local console="$ROOT/build/apps/nimiob-console/nimiob-console"
  [ -x "$console" ] || { log "the console is not built yet"; return 1; }
  "$console" status "$@"
}

# The API reference from the public headers, in build/docs/html. Doxygen is
# installed here on demand: nothing else needs it. Every public class or
# member without documentation is a warning, and warnings fail the command.
cmd_docs() {
  if ! command -v doxygen >/dev/null; then
    log "installing doxygen (needed only for the API reference)"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends doxygen >/dev/null
  fi
  local out="$ROOT/build/docs"
  local version
  version="$(sed -nE 's/^project\(nimiob VERSION ([0-9.]+).*/\1/p' "$ROOT/CMakeLists.txt")"
  rm -rf "$out"
  mkdir -p "$out"
  local status=0
  NIMIOB_ROOT="$ROOT" NIMIOB_DOCS_OUT="$out" NIMIOB_VERSION="$version" \
    doxygen "$ROOT/docs/Doxyfile" || status=$?
  # With warnings as errors doxygen writes "error:" for each of them. A
  # member of the interfaces' common template base is reported once for
  # every interface; the places count each declaration once.
  local warnings=0 places=0
  if [ -f "$out/warnings.log" ]; then
    warnings="$(grep -cE ': (warning|error): ' "$out/warnings.log" || true)"
    places="$( (grep -E ': (warning|error): ' "$out/warnings.log" || true) | cut -d: -f1,2 | sort -u | wc -l)"
  fi
  if [ "$warnings" -gt 0 ] || [ "$status" -ne 0 ]; then
    grep -E ': (warning|error): ' "$out/warnings.log" 2>/dev/null | head -n 20 >&2 || true
    log "doxygen: $warnings warning(s) at $places place(s) in the headers (all in $out/warnings.log); the reference is in $out/html/index.html"
    return 1
  fi
  log "API reference: $out/html/index.html, no warning"
}

usage() {
  echo "usage: scripts/dev.sh {deps|build|test|bench|asan|tsan|fuzz|format|demo|docs} [args...]"
}

main() {
  local cmd="${1:-}"; shift || true
  case "$cmd" in
    deps|build|test|bench|asan|tsan|fuzz|format|demo|docs) "cmd_$cmd" "$@" ;;
    *) usage; exit 2 ;;
  esac
}
main "$@"
