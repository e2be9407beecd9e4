#!/bin/bash
# Installs the Debian packages a task needs; does nothing when they are
# already there. Usage: scripts/deps.sh [build] [ci] [bench]
set -e
PKGS=""
for group in "${@:-build}"; do
    case "$group" in
    build) PKGS="$PKGS cmake ninja-build g++ googletest" ;;
    ci) PKGS="$PKGS cmake ninja-build g++ clang clang-format libclang-rt-14-dev googletest g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix wine64 util-linux" ;;
    bench) PKGS="$PKGS cmake ninja-build g++ libbenchmark-dev libboost-dev libconcurrentqueue-dev libreaderwriterqueue-dev libspdlog-dev libfmt-dev libuv1-dev zlib1g-dev libjemalloc-dev libmimalloc-dev libgoogle-perftools-dev libinih-dev libsimpleini-dev libdeflate-dev libisal-dev libcrcutil-dev libevent-dev libabsl-dev" ;;
    *) echo "deps.sh: unknown group $group" >&2; exit 2 ;;
    esac
done
MISSING=""
for p in $PKGS; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || MISSING="$MISSING $p"
done
[ -z "$MISSING" ] && exit 0
SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo
echo "installing:$MISSING"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends $MISSING >/dev/null
