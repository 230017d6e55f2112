#!/usr/bin/env bash
# Runs codec/v4l2 on a codec device of the kernel without hardware: vicodec, which Debian's kernel does
# not ship, built from Debian's source and loaded in the virtual machine that scripts/test-dmabuf.sh
# boots.
#
#   scripts/test-v4l2.sh
#
# Everything is downloaded and built under build/v4l2, never installed. Ends with a count of tests that
# passed and failed, and with 0, 1, or 77 when the kernel's packages do not fit together or are not to be
# had.
source "$(dirname "$0")/lib.sh"

kernel_package=linux-image-6.12-amd64 # names the current image of that series
work=build/v4l2
mkdir -p $work

skip() {
    echo "v4l2: SKIPPED, $*"
    exit 77
}

# ---- Kernel and modules

findImage() {
    image=$(apt-cache depends $kernel_package 2>/dev/null | awk '/Depends: linux-image-/ {print $2}') || true
    [ -n "$image" ]
}
findImage || apt-get update -qq || true # a machine that has never asked knows no package
findImage || skip "no package $kernel_package"
abi=${image#linux-image-}
modules=$work/modules-$abi
need qemu-system-x86 busybox-static cpio make gcc libelf1 xz-utils kmod ||
    skip "the packages that it needs could not be installed"

versionOf() { apt-cache madison "$1" | awk -v v="$2" -F' *[|] *' '$2 == v {print $2; exit}'; }
buildModules() {
    local base=${abi%-amd64} version package
    version=$(apt-cache policy "$image" | awk '/Candidate:/ {print $2}')
    local packages=("$image" "linux-headers-$abi" "linux-headers-$base-common" "linux-kbuild-$base" linux-source-6.12)
    for package in "${packages[@]}"; do
        [ -n "$(versionOf "$package" "${version/+signed*/}")$(versionOf "$package" "$version")" ] ||
            skip "$package is not there in version $version"
    done
    rm -rf "$work/tree" && mkdir -p "$work/tree" "$work/debs"
    (cd $work/debs && timeout 900 apt-get download -qq -o APT::Sandbox::User=root "${packages[@]}") ||
        skip "the packages of $version could not be downloaded"
    for package in "$work"/debs/*.deb; do
        case $package in
            */linux-source-*) dpkg --fsys-tarfile "$package" | tar -xO ./usr/src/linux-source-6.12.tar.xz |
                tar -xJ -C "$work/tree" --strip-components=3 --wildcards '*/drivers/media/v4l2-core/v4l2-mem2mem.c' \
                    '*/drivers/media/test-drivers/vicodec/*' ;;
            */linux-image-*) dpkg --fsys-tarfile "$package" | tar -x -C "$work/tree" ./boot ./usr/lib/modules 2>/dev/null ||
                dpkg --fsys-tarfile "$package" | tar -x -C "$work/tree" ;;
            *) dpkg --fsys-tarfile "$package" | tar -x -C "$work/tree" ;;
        esac
    done
    find "$work/tree" -maxdepth 4 | head -40
}
