#!/usr/bin/env bash
# Installs the SDK into a temporary prefix and builds a host against it twice:
# with find_package(qltfsdk) and with pkg-config, and builds the qltfs tool
# from its sources against the installed headers alone. Usage: check.sh BUILD_DIR
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR="$work"  # what the library makes in the temporary area goes too
cmake --install "$build" --prefix "$work/prefix" >/dev/null
# Settings and an error-log folder beside the library, which the host, run
# from a folder of its own, must find there.
printf '[FILERW]\r\nWriteBufSize=128\r\n[LOG]\r\nLogFileOn=1\r\n' >"$work/prefix/lib/qltfsdk.ini"
mkdir -p "$work/prefix/lib/sdk-log/ErrorLog"
cmake -S "$here" -B "$work/cmake-host" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DQLTFS_TOOL_DIR="$here/../../tools/qltfs" >/dev/null
cmake --build "$work/cmake-host" >/dev/null
"$work/cmake-host/host"
head -c 70000 /dev/urandom >"$work/a"
"$work/cmake-host/qltfs/qltfs" copy "$work/a" "$work/b" --rate 2G >/dev/null 2>&1
cmp "$work/a" "$work/b"
flags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs qltfsdk)
# shellcheck disable=SC2086
c++ -std=c++17 "$here/host.cc" $flags -Wl,-rpath,"$work/prefix/lib" -o "$work/pc-host"
"$work/pc-host"
