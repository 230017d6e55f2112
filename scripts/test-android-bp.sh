#!/usr/bin/env bash
# Builds Android.bp on this machine, with platform/host.bp in place of the rest of an Android tree, and
# runs its tests. No device is needed, and no Android tree.
source "$(dirname "$0")/lib.sh"

need blueprint-tools mini-soong clang ninja-build googletest libcli11-dev nlohmann-json3-dev libpugixml-dev libssl-dev zlib1g-dev
[ -z "$(bpfmt -d Android.bp platform/host.bp 2>&1 | tee /dev/stderr)" ]
root=$PWD
mkdir -p build/android-bp
cd build/android-bp
"$root/scripts/android-bp.py" "$root/Android.bp" "$root/platform/host.bp"
ninja
ninja tests

# vxrun: the version of the project, and a picture that a program decodes.
grep -q "^project(vxbase VERSION $(./vxrun --version | cut -d' ' -f2) " "$root/CMakeLists.txt"
printf 'YUV4MPEG2 W2 H2 F25:1\nFRAME\npixels' >picture.y4m
echo '{ "name": "cat", "command": ["cat", "{input}"] }' >cat.json
[ "$(./vxrun decode picture.y4m --decoder cat.json)" = "$(printf pixels | md5sum | cut -d' ' -f1)" ]
