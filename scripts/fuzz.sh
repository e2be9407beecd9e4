#!/bin/bash
# Builds the libFuzzer targets with clang and runs each for a while:
#   scripts/fuzz.sh [seconds per target] [name ...]   (names: ini or fuzz_ini)
# The corpus of each target grows in $UTIL_BUILD_DIR/corpus/<name>, seeded
# from fuzz/seeds/<name> when that exists. Exits non-zero on the first crash,
# leak or sanitizer report.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${UTIL_BUILD_DIR:-$ROOT/build-fuzz}
SECONDS_EACH=${1:-60}
shift || true
NAMES=()
for n in "$@"; do NAMES+=("fuzz_${n#fuzz_}"); done

"$ROOT/scripts/deps.sh" build ci
CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DUTIL_BUILD_FUZZ=ON -DUTIL_BUILD_TESTS=OFF -DUTIL_BUILD_EXAMPLES=OFF ${UTIL_CMAKE_ARGS:-} >/dev/null
cmake --build "$BUILD"

mapfile -t PROGRAMS < "$BUILD/fuzz/programs.txt"
RAN=0
for program in "${PROGRAMS[@]}"; do
    [ -n "$program" ] || continue
    name=$(basename "$program")
    if [ ${#NAMES[@]} -gt 0 ] && [[ ! " ${NAMES[*]} " =~ " $name " ]]; then
        continue
    fi
    corpus="$BUILD/corpus/$name"
    mkdir -p "$corpus"
    seeds=()
    [ -d "$ROOT/fuzz/seeds/${name#fuzz_}" ] && seeds=("$ROOT/fuzz/seeds/${name#fuzz_}")
    echo "==== $name (${SECONDS_EACH}s)"
    log="$BUILD/$name.log"
    if ! (cd "$BUILD" && "$program" -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 "$corpus" "${seeds[@]}" >"$log" 2>&1); then
        tail -n 80 "$log" >&2
        echo "fuzz.sh: $name found a fault (reproducer in $BUILD)" >&2
        exit 1
    fi
    grep -E '^stat::number_of_executed_units' "$log" || true
    RAN=$((RAN + 1))
done
echo "fuzz.sh: $RAN target(s) ran clean"
