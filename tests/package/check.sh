#!/usr/bin/env bash
# Installs the SDK into a temporary prefix and builds a host against it twice:
# with find_package(qltfsdk) and with pkg-config. Usage: check.sh BUILD_DIR
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$here" -B "$work/cmake-host" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-host" >/dev/null
"$work/cmake-host/host"
flags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs qltfsdk)
# shellcheck disable=SC2086
c++ -std=c++17 "$here/host.cc" $flags -Wl,-rpath,"$work/prefix/lib" -o "$work/pc-host"
"$work/pc-host"
