#!/bin/sh
# Builds the library and runs the demo: a simulated call of about 10 s
# (examples/demo_call.cpp). Logs go to ./demo-logs; options are passed on
# (--duration S, --encoders N, --pool N, --stress, --log-dir D, --quiet).
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${UTIL_BUILD_DIR:-$ROOT/build}
"$ROOT/scripts/deps.sh" build
cmake -S "$ROOT" -B "$BUILD" -G Ninja >/dev/null
cmake --build "$BUILD" --target demo_call
"$BUILD/bin/demo_call" "$@"
