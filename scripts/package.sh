#!/usr/bin/env bash
# Builds the Debian packages of this processor, or cross-builds those for arm64: build/packages/*.deb.
#
#   scripts/package.sh [amd64|arm64]
source "$(dirname "$0")/lib.sh"

arch=${1:-$(dpkg --print-architecture)}
need "${build_packages[@]}" dpkg-dev file
if [ "$arch" = "$(dpkg --print-architecture)" ]; then
    preset=package
elif [ "$arch" = arm64 ]; then
    preset=aarch64
    need g++-aarch64-linux-gnu
    arm64Root
    export DEB_HOST_ARCH=arm64 DPKG_ADMINDIR=$PWD/build/arm64-root/var/lib/dpkg
else
    echo "package.sh: cannot build for $arch here" >&2
    exit 2
fi
build $preset vxrun
mkdir -p build/packages
rm -f build/packages/*_"$arch".deb
(cd build/packages && cpack --config ../$preset/CPackConfig.cmake >cpack.log) || { cat build/packages/cpack.log && exit 1; }
ls build/packages/*_"$arch".deb
