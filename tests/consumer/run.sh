#!/usr/bin/env bash
# Installs a build to a prefix and has README.md's program find it there, by CMake and by pkg-config.
#
#   run.sh BUILD_DIR CXX [CXX_FLAG...]
set -euo pipefail
build=$1 cxx=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$here/../../README.md" >"$work/hello.cpp"

check() {  # PROGRAM
    local said
    said=$("$1")
    [ "$said" = "hello, graph" ] || { echo "$1 printed '$said'"; exit 1; }
}

cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" -DPROGRAM="$work/hello.cpp" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$*" >/dev/null
cmake --build "$work/build" >/dev/null
check "$work/build/hello"
echo "find_package: ok"

libdir=$(dirname "$(find "$work/prefix" -name vxbase.pc)")/..
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046  # flags are words
"$cxx" -std=c++17 "$@" "$work/hello.cpp" $(pkg-config --cflags --libs vxbase) -Wl,-rpath,"$libdir" -o "$work/hello"
check "$work/hello"
echo "pkg-config: ok"
