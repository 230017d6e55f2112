#!/usr/bin/env bash
# Builds the Debian packages, installs them in a clean system, uses them there, and removes them again.
#
#   scripts/test-packages.sh
#
# The system is below build/packages; nothing is installed on this machine. Ends with 0, 1, or 77 where
# no other root can be entered.
source "$(dirname "$0")/lib.sh"

arch=$(dpkg --print-architecture)
work=$PWD/build/packages
root=$work/root
skip() {
    echo "packages: SKIPPED, $*"
    exit 77
}
trap 'case $? in 0 | 77) ;; *) echo "packages: FAILED" && exit 1 ;; esac' EXIT
inRoot() {
    unshare --mount --pid --fork --kill-child --root="$root" --mount-proc \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}
expect() { # WANTED COMMAND...: run in the root, it prints WANTED
    local said
    said=$(inRoot "${@:2}") && [ "$said" = "$1" ] || { echo "${*:2}: printed '$said', not '$1'" && exit 1; }
}

[ "$(id -u)" = 0 ] || skip "only root can enter another root"
unshare --mount --pid --fork true || skip "no name spaces here"
need mmdebstrap
scripts/package.sh "$arch"

# ---- A clean system, kept for the next time

if [ ! -e "$work/root.tar" ]; then
    debianSources | mmdebstrap --quiet --variant=apt '' "$work/new.tar" -
    mv "$work/new.tar" "$work/root.tar"
fi
rm -rf "$root" && mkdir "$root"
tar -x -C "$root" -f "$work/root.tar"
cp /etc/resolv.conf "$root/etc"
ours() { find "$root" -xdev -name '*vx*' | sort; }
ours >"$work/before"

echo "installing"
mkdir "$root/data"
cp "$work"/*_"$arch".deb "$root/data"
inRoot apt-get update -qq
inRoot sh -c 'apt-get install -y -qq --no-install-recommends /data/*.deb' >"$work/install.log" 2>&1 ||
    { cat "$work/install.log" && exit 1; }

# ---- vxrun

(
    cd "$root/data"
    ffmpeg -v error -f lavfi -i testsrc2=size=176x144:rate=25:duration=0.4 -pix_fmt yuv420p clip.264
    ffmpeg -v error -i clip.264 -f framemd5 clip.framemd5
    mkdir -p S/clip && cp clip.264 S/clip
)
md5=$(ffmpeg -v error -i "$root/data/clip.264" -f md5 -)
cat >"$root/data/suite.json" <<SUITE
{"name": "S", "codec": "H.264", "description": "", "test_vectors": [{"name": "clip", "source": "", "source_checksum": "",
  "input_file": "clip.264", "output_format": "yuv420p", "result": "${md5#MD5=}"}]}
SUITE
expect "verdict: PASS frames=10 checked=10 first_bad=-" vxrun /usr/share/vxrun/graphs/decode.json \
    --set reader.file=/data/clip.264 --set check.expect=/data/clip.framemd5
inRoot vxrun suite /data/suite.json --resources /data
complete() { # EXPECTED WORD...: of the command line
    # shellcheck disable=SC2016
    expect "$1" bash -c '. /usr/share/bash-completion/completions/vxrun
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _vxrun; echo "${COMPREPLY[@]}"' bash "${@:2}"
}
complete suite vxrun su
complete --junit vxrun suite --ju
complete dav1d vxrun decode --decoder dav
echo "vxrun: ok"

# ---- The development packages, with this machine's compiler

rm -rf "$work/hello" && mkdir "$work/hello"
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' README.md >"$work/hello/hello.cpp"
cd "$work/hello"
cat >CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(hello LANGUAGES CXX)
find_package(vxbase 1.0 REQUIRED COMPONENTS kit testing)
add_executable(hello hello.cpp)
target_link_libraries(hello PRIVATE vexa::vxkit vexa::testing)
CMAKE
cmake -G Ninja -B build -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build build >/dev/null
libraries=$(dirname "$(find "$root/usr" -name vxkit.pc)")
# shellcheck disable=SC2046
g++ -std=c++17 hello.cpp $(PKG_CONFIG_PATH=$libraries pkg-config --cflags --libs vxkit) -o hello
for program in build/hello hello; do
    cp $program "$root/data/hello"
    expect "hello, graph" /data/hello
done
echo "libvxbase-dev, libvxkit-dev: ok"

# ---- Removed

rm -r "$root/data"
inRoot apt-get purge -y -qq vxrun libvxkit-dev libvxkit1 libvxbase-dev libvxbase1 >"$work/purge.log" 2>&1
ours | diff "$work/before" - || { echo "files are left" && exit 1; }
echo "packages: PASS"
