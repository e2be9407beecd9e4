#!/bin/sh
# Runs a Windows test binary under Wine; CMake uses it as the emulator.
#
# The first Wine program of a session starts the server and the session's
# resident programs (services.exe, explorer.exe, winedevice.exe, plugplay.exe,
# svchost.exe, rpcss.exe), and they keep its standard error open for as long
# as the session lives. Were that program a test, CTest would wait on the
# test's output until every later test had ended too, and time it out after
# it had passed. So before a test runs, under a lock, the prefix is made if
# missing, and when no server is running one is started here and the session
# is booted by a program that does nothing, with every standard stream on
# /dev/null. The server outlives its last program by WINE_RUN_PERSIST seconds,
# so the tests of one run share the session.
WINE=${WINE:-/usr/lib/wine/wine64}
WINESERVER=${WINESERVER:-/usr/lib/wine/wineserver}
PERSIST=${WINE_RUN_PERSIST:-30}
export WINEPREFIX="${WINEPREFIX:-${TMPDIR:-/tmp}/util-wineprefix}"
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
mkdir -p "$(dirname "$WINEPREFIX")"
(
    flock 9
    # Nothing started here may keep the lock (fd 9) or the caller's output.
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        "$WINE" wineboot --init </dev/null >/dev/null 2>&1 9>&-
        # wineboot returns before the server has written the registry.
        "$WINESERVER" -w </dev/null >/dev/null 2>&1 9>&- || true
    fi
    # Exit status 0: this call started the server (2: one was running).
    if "$WINESERVER" -p"$PERSIST" </dev/null >/dev/null 2>&1 9>&-; then
        # Returns once the session's resident programs are up.
        "$WINE" cmd.exe /c exit </dev/null >/dev/null 2>&1 9>&-
    fi
) 9>"$WINEPREFIX.lock"
exec "$WINE" "$@"
