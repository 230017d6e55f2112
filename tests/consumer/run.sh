#!/usr/bin/env bash
# Installs a build to a prefix and has the programs of the README and of docs/writing-a-node.md find it
# there, by CMake and by pkg-config. The headers for tests come with a component of their own.
#
#   run.sh BUILD_DIR CXX [CXX_FLAG...]
set -euo pipefail
build=$1 cxx=$2
shift 2
flags=$*
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
sourceOf() { # FILE N: the n-th program of a document
    awk -v n="$2" '/^```$/ { inside = 0 } inside && count == n; /^```cpp$/ { inside = 1; ++count }' "$here/../../$1"
}
sourceOf README.md 1 >"$work/hello.cpp"
sourceOf docs/writing-a-node.md 1 >"$work/flat.cpp"
sourceOf docs/writing-a-node.md 2 >"$work/nodes.cpp"
cp "$here/kit.cpp" "$work"

check() {  # DIR: of the built programs
    local said
    said=$("$1/hello") && [ "$said" = "hello, graph" ] || { echo "$1/hello printed '$said'"; exit 1; }
    said=$("$1/nodes") && [ "$said" = "1.5 2.5 3.5 4" ] || { echo "$1/nodes printed '$said'"; exit 1; }
    said=$("$1/kit") && [ "$said" = "PASS 20" ] || { echo "$1/kit printed '$said'"; exit 1; }
}

configure() {  # [COMPONENT]: of find_package
    cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" -DPROGRAMS="$work" \
        -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCOMPONENTS="${1-}"
}
configure >/dev/null
cmake --build "$work/build" >/dev/null
check "$work/build"
echo "find_package: ok"

[ -z "$(find "$work/prefix" -path '*testing*')" ] || { echo "a plain install has the testing component"; exit 1; }
said=$(configure testing 2>&1) && { echo "testing was found before it was installed"; exit 1; }
grep -q "component 'testing' is not installed" <<<"$said" || { echo "$said"; exit 1; }
cmake --install "$build" --component testing --prefix "$work/prefix" >/dev/null
configure testing >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/fault" 2>"$work/log" || { echo "fault failed"; cat "$work/log"; exit 1; }
said=$("$work/build/flat")
[ "$said" = "$(sed -n '/^    10 at /,/^$/s/^    //p' "$here/../../docs/writing-a-node.md")" ] ||
    { echo "flat printed '$said'"; exit 1; }
echo "find_package, testing: ok"

libdir=$(dirname "$(find "$work/prefix" -name vxbase.pc)")/..
export PKG_CONFIG_PATH=$libdir/pkgconfig
for program in hello nodes kit; do
    # shellcheck disable=SC2046  # flags are words
    "$cxx" -std=c++17 "$@" "$work/$program.cpp" $(pkg-config --cflags --libs vxbase vxkit) -Wl,-rpath,"$libdir" \
        -o "$work/$program"
done
check "$work"
echo "pkg-config: ok"

# The decoder in a repository of its own.
if pkg-config --exists libde265; then
    cmake -S "$here/../../examples/acme-decoder" -B "$work/acme" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
    cmake --build "$work/acme" >/dev/null
    ctest --test-dir "$work/acme" --output-on-failure >"$work/log" || { cat "$work/log"; exit 1; }
    streams=("$here"/../../../shared/streams/hevc/*.h265)
    [ ! -e "${streams[0]}" ] ||
        "$here/../../examples/acme-decoder/test.sh" "$work/prefix/bin/vxrun" "$work/acme/libacme.so" "$work/acme/acme_test" \
            "${streams[@]}" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
    echo "acme-decoder: ok"
else
    echo "acme-decoder: skipped, no libde265"
fi
