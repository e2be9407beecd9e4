#!/bin/bash
# Builds the benchmarks in Release and runs them: every program, or only the
# ones named (lock or bench_lock). Arguments after -- go to each program, e.g.
#   scripts/bench.sh lock -- --benchmark_filter=tls --benchmark_repetitions=10
# Extra CMake arguments may be given in UTIL_CMAKE_ARGS; the build directory
# in UTIL_BUILD_DIR.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${UTIL_BUILD_DIR:-$ROOT/build-bench}

NAMES=()
while [ $# -gt 0 ]; do
    if [ "$1" = -- ]; then
        shift
        break
    fi
    NAMES+=("bench_${1#bench_}")
    shift
done

"$ROOT/scripts/deps.sh" bench
# shellcheck disable=SC2086
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DUTIL_BUILD_BENCH=ON -DUTIL_BUILD_TESTS=OFF -DUTIL_BUILD_EXAMPLES=OFF ${UTIL_CMAKE_ARGS:-}
if [ ${#NAMES[@]} -eq 0 ]; then
    cmake --build "$BUILD"
else
    cmake --build "$BUILD" --target "${NAMES[@]}"
fi

# The programs this configuration builds, as written by bench/CMakeLists.txt.
mapfile -t PROGRAMS < "$BUILD/bench/programs.txt"
RUN=()
if [ ${#NAMES[@]} -eq 0 ]; then
    RUN=("${PROGRAMS[@]}")
else
    for name in "${NAMES[@]}"; do
        for program in "${PROGRAMS[@]}"; do
            [ "$(basename "$program")" = "$name" ] && RUN+=("$program")
        done
    done
fi

FAILED=""
for program in "${RUN[@]}"; do
    echo "==== $(basename "$program")"
    "$program" "$@" || FAILED="$FAILED $(basename "$program")"
    echo
done
if [ -n "$FAILED" ]; then
    echo "bench.sh: failed:$FAILED" >&2
    exit 1
fi
