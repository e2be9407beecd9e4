#!/bin/sh
# Builds the library and runs the demo host.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${UTIL_BUILD_DIR:-$ROOT/build}
"$ROOT/scripts/deps.sh" build
cmake -S "$ROOT" -B "$BUILD" -G Ninja >/dev/null
cmake --build "$BUILD" --target demo_host
"$BUILD/bin/demo_host" "$@"
