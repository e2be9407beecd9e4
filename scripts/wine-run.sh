#!/bin/sh
# Runs a Windows test binary under Wine; CMake uses it as the emulator.
#
# A Wine program that finds no session running starts one: the server and
# the resident programs (services.exe, explorer.exe, winedevice.exe,
# plugplay.exe, svchost.exe, rpcss.exe), which all inherit its standard error
# and keep it open while the session lives. CTest waits for the end of a
# test's output, so a test that happened to start the session was timed out
# after it had passed, while later tests kept the session alive. So the
# test's standard error goes to a file, copied to ours as it grows until the
# test ends: what Wine keeps open is that file, never CTest's pipe.
WINE=${WINE:-/usr/lib/wine/wine64}
WINESERVER=${WINESERVER:-/usr/lib/wine/wineserver}
export WINEPREFIX="${WINEPREFIX:-${TMPDIR:-/tmp}/util-wineprefix}"
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
# The prefix is made once, under a lock, so parallel tests do not race to
# create it. Nothing started under the lock may keep it (fd 9).
if [ ! -f "$WINEPREFIX/system.reg" ]; then
    mkdir -p "$(dirname "$WINEPREFIX")"
    (
        flock 9
        if [ ! -f "$WINEPREFIX/system.reg" ]; then
            "$WINE" wineboot --init </dev/null >/dev/null 2>&1 9>&-
            # wineboot returns before the server has written the registry.
            "$WINESERVER" -w </dev/null >/dev/null 2>&1 9>&- || true
        fi
    ) 9>"$WINEPREFIX.lock"
fi
err=$(mktemp "${TMPDIR:-/tmp}/wine-run-stderr.XXXXXX") || exit 1
trap 'rm -f "$err"' EXIT
"$WINE" "$@" 2>"$err" &
pid=$!
# tail stops once the test is gone (it reads the file once more then), which
# is after the wait below has reaped it.
tail -s 0.1 -n +1 -f --pid="$pid" "$err" >&2 &
copier=$!
wait "$pid"
status=$?
wait "$copier"
exit $status
