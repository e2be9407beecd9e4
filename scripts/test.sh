#!/bin/sh
# Builds the library and runs every test. Extra CMake arguments may be given
# in UTIL_CMAKE_ARGS; the build directory in UTIL_BUILD_DIR.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${UTIL_BUILD_DIR:-$ROOT/build}
"$ROOT/scripts/deps.sh" build
# shellcheck disable=SC2086
cmake -S "$ROOT" -B "$BUILD" -G Ninja ${UTIL_CMAKE_ARGS:-} >/dev/null
cmake --build "$BUILD"
cd "$BUILD"
ctest --output-on-failure -j2
