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
need qemu-system-x86 busybox-static cpio make gcc libelf1 xz-utils libdrm-dev "${build_packages[@]}" ||
    skip "the packages that it needs could not be installed"

# All of one version: modules fit no other kernel.
buildModules() {
    local base=${abi%-amd64} packages
    packages=("$image" "linux-headers-$abi" "linux-headers-$base-common" "linux-kbuild-$base" linux-source-6.12)
    rm -rf "$work/tree" "$work/debs" "$work/ko" && mkdir -p $work/{tree,debs,ko,new}
    (cd $work/debs && timeout 900 apt-get download -qq -o APT::Sandbox::User=root "${packages[@]}") ||
        skip "the kernel's packages could not be downloaded"
    [ "$(printf '%s\n' $work/debs/*.deb | sed 's/^[^_]*_\([^_]*\)_.*/\1/' | sort -u | wc -l)" = 1 ] ||
        skip "the kernel's packages are of different versions"
    local deb
    for deb in $work/debs/linux-{headers,kbuild}-*.deb; do dpkg --fsys-tarfile "$deb" | tar -x -C $work/tree; done
    dpkg --fsys-tarfile $work/debs/linux-source-*.deb | tar -xO ./usr/src/linux-source-6.12.tar.xz |
        tar -xJ -C $work/ko --wildcards --transform 's,.*/,,' '*/drivers/media/v4l2-core/v4l2-mem2mem.c' \
            '*/drivers/media/test-drivers/vicodec/*.[ch]'
    printf '%s\n' 'obj-m := v4l2-mem2mem.o vicodec.o' \
        'vicodec-objs := vicodec-core.o codec-fwht.o codec-v4l2-fwht.o' >$work/ko/Kbuild
    local headers=$PWD/$work/tree/usr/src/linux-headers-$abi
    sed -i "s,^include .*,include $PWD/$work/tree/usr/src/linux-headers-$base-common/Makefile," "$headers/Makefile"
    # Without BTF, which needs a tool of its own.
    make -s -C "$headers" M="$PWD/$work/ko" CONFIG_DEBUG_INFO_BTF_MODULES= modules >$work/make.log 2>&1 ||
        { tail -20 $work/make.log && skip "the modules could not be built"; }
    dpkg --fsys-tarfile $work/debs/linux-image-*.deb | tar -x -C $work/tree ./boot ./lib/modules
    local module
    for module in "${shipped[@]}"; do
        xz -dc "$(find $work/tree/lib/modules -name "$module.ko.xz")" >"$work/new/$module.ko"
    done
    cp $work/ko/*.ko $work/tree/boot/vmlinuz-* $work/new
    rm -rf $work/debs $work/tree $work/ko
    mv $work/new "$modules"
}
shipped=(mc videodev videobuf2-common videobuf2-v4l2 videobuf2-memops videobuf2-vmalloc drm drm_kms_helper
    drm_shmem_helper vgem)
[ -d "$modules" ] || buildModules

# ---- Machine: vxrun with its libraries

build debug vxrun v4l2_fences v4l2_faults
root=$work/root
rm -rf $root && mkdir -p $root/{bin,dev,proc,sys,tmp,modules,data}
cp /bin/busybox build/debug/apps/vxrun/vxrun{,-libav.so} $root/bin
cp "$modules"/*.ko $root/modules
cp tests/v4l2/*.{json,sh} build/debug/tests/libv4l2_*.so $root/data
for clip in clip=640x360 large=1280x720; do
    ffmpeg -v error -f lavfi -i testsrc2=size=${clip#*=}:rate=25:duration=0.64 -pix_fmt yuv420p "$root/data/${clip%=*}.y4m"
done
for library in libv4l2_fences libv4l2_faults; do strip "$root/data/$library.so"; done
ldd build/debug/apps/vxrun/vxrun{,-libav.so} | grep -v ':$' | grep -o '/[^ ]*' | sort -u | while read -r library; do
    mkdir -p "$root$(dirname "$library")"
    strip -o "$root$library" "$library" 2>/dev/null || cp -L "$library" "$root$library"
done
cat >$root/init <<INIT
#!/bin/busybox sh
/bin/busybox mount -t devtmpfs none /dev
/bin/busybox mount -t proc none /proc
/bin/busybox mount -t sysfs none /sys
/bin/busybox --install /bin
for module in ${shipped[*]} v4l2-mem2mem vicodec; do
    insmod /modules/\$module.ko
done
export LD_LIBRARY_PATH=$(find $root -name '*.so*' -printf '/%P\n' | xargs -n1 dirname | sort -u | paste -sd:)
sh /data/run.sh
reboot -f
INIT
chmod +x $root/init
(cd $root && find . | cpio -o -H newc --quiet) >$work/initramfs

# Boot takes seconds on an idle machine, and a hundred on a loaded one.
log=$work/console.log
timeout 900 qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 2G -nodefaults -display none -no-reboot -serial stdio \
    -kernel "$modules"/vmlinuz-* -initrd $work/initramfs -append "console=ttyS0 quiet panic=-1" </dev/null 2>&1 |
    tr -d '\r' | tee $log || echo "v4l2: the machine did not end well"
passed=$(grep -c '^ok ' $log || true) failed=$(grep -c '^not ok ' $log || true)
grep -q '^v4l2: all ran$' $log || failed=$((failed + 1))
echo "v4l2: passed=$passed failed=$failed"
exit $((failed > 0))
