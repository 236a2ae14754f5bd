#!/usr/bin/env bash
# The Windows package: installs the cross build into a temporary prefix,
# builds the host against it with find_package(qltfsdk) and the same
# mingw-w64 toolchain, and runs it under Wine from a folder of its own, the
# DLLs found through the prefix's bin. Usage: check_windows.sh BUILD_DIR
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
# Settings and an error-log folder beside the library, which the host, run
# from a folder of its own, must find there.
printf '[FILERW]\r\nWriteBufSize=128\r\n[LOG]\r\nLogFileOn=1\r\n' >"$work/prefix/bin/qltfsdk.ini"
mkdir -p "$work/prefix/bin/sdk-log/ErrorLog"
cmake -S "$here" -B "$work/host" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$here/../../cmake/mingw-w64.cmake" \
  -Dqltfsdk_DIR="$work/prefix/lib/cmake/qltfsdk" >/dev/null
cmake --build "$work/host" >/dev/null
cd "$work/host"
WINEPATH=$(winepath -w "$work/prefix/bin") wine ./host.exe
# The installed tool copies a file whose names lie beyond ASCII and beyond
# any ANSI code page: the arguments must reach it whole.
head -c 70000 /dev/urandom >"$work/Ünïcødé-文件.bin"
cd "$work"
LC_ALL=C.UTF-8 wine "$work/prefix/bin/qltfs.exe" copy "Ünïcødé-文件.bin" "copie-😀.bin" --rate 2G >/dev/null 2>&1
cmp "$work/Ünïcødé-文件.bin" "$work/copie-😀.bin"
