#!/usr/bin/env bash
# Installs what is missing, builds one preset and runs its tests.
#
#   scripts/test.sh [PRESET [CTEST OPTION...]]    PRESET: debug (default), release, asan, tsan, libcxx, nolibav,
#                                         aarch64
#
# VX_TEST_SCALE=PERCENT turns the counts of the thread-heavy tests down (or up).
source "$(dirname "$0")/lib.sh"

preset=${1:-debug}
shift || true
need "${build_packages[@]}"
case $preset in
    # The decoders that the shipped descriptions name, and that of examples/.
    debug) need libde265-dev dav1d aom-tools vpx-tools libde265-examples gstreamer1.0-tools gstreamer1.0-libav \
        gstreamer1.0-plugins-base gstreamer1.0-plugins-bad ;;
esac
case $preset in
    release) need libbenchmark-dev ;;
    nolibav) need dav1d ;;
    libcxx) need clang libc++-14-dev libc++abi-14-dev ;;
    aarch64)
        need g++-aarch64-linux-gnu qemu-user-static
        arm64Root
        ;;
esac

# A build with VX_TEST_SCALE unset runs everything at full count, but for those that run slowly.
case $preset in
    asan | tsan) : "${VX_TEST_SCALE:=25}" ;;
    aarch64) : "${VX_TEST_SCALE:=5}" ;;
    *) : "${VX_TEST_SCALE:=100}" ;;
esac
export VX_TEST_SCALE

build "$preset"
ctest --preset "$preset" -j2 "$@"
