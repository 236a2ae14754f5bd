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
cmake -S "$here" -B "$work/host" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$here/../../cmake/mingw-w64.cmake" \
  -Dqltfsdk_DIR="$work/prefix/lib/cmake/qltfsdk" >/dev/null
cmake --build "$work/host" >/dev/null
cd "$work/host"
WINEPATH=$(winepath -w "$work/prefix/bin") wine ./host.exe
