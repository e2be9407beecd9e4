#!/bin/sh
# Runs a Windows test binary under Wine; CMake uses it as the emulator.
# The prefix is made once, under a lock, so parallel tests do not race to
# create it.
WINE=${WINE:-/usr/lib/wine/wine64}
export WINEPREFIX="${WINEPREFIX:-${TMPDIR:-/tmp}/util-wineprefix}"
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
    mkdir -p "$(dirname "$WINEPREFIX")"
    (
        flock 9
        if [ ! -f "$WINEPREFIX/system.reg" ]; then
            "$WINE" wineboot --init >/dev/null 2>&1
            # wineboot returns before the server has written the registry.
            /usr/lib/wine/wineserver -w 2>/dev/null || true
            # One server, started here and kept a while, for the tests that
            # follow, so the first parallel tests do not each start one. (The
            # exit hang CI retries is not this: it came back with the server.)
            /usr/lib/wine/wineserver -p30 2>/dev/null || true
        fi
    ) 9>"$WINEPREFIX.lock"
fi
exec "$WINE" "$@"
