#!/usr/bin/env bash
# Runs the buffer tests on real DMA-BUF memory: in a virtual machine that boots Debian's stock kernel,
# once on the system heap (/dev/dma_heap/system), once on memfd + /dev/udmabuf.
#
#   scripts/test-dmabuf.sh
#
# The kernel is downloaded and unpacked under build/dmabuf, never installed. Ends with a count of runs
# that passed, failed and were skipped, and with 0 when all passed, 1 when one failed, 77 when the
# kernel or the emulator is not to be had.
source "$(dirname "$0")/lib.sh"

kernel_package=linux-image-6.12-amd64 # names the current image of that series
boot_limit=300                        # seconds for the machine, from start to power-off
sources=(heap udmabuf)
work=build/dmabuf
mkdir -p $work

finish() {
    echo "dmabuf: passed=$1 failed=$2 skipped=$3"
    exit "$4"
}
skip() {
    echo "dmabuf: SKIPPED, $*"
    finish 0 0 ${#sources[@]} 77
}

need g++ googletest qemu-system-x86 busybox-static cpio ||
    skip "the packages that it needs could not be installed"

# ---- Kernel

findImage() {
    image=$(apt-cache depends $kernel_package 2>/dev/null | awk '/Depends: linux-image-/ {print $2}') || true
    [ -n "$image" ]
}
findImage || apt-get update -qq || true # a machine that has never asked knows no package
findImage || skip "no package $kernel_package"
kernel=$work/boot/vmlinuz-${image#linux-image-}
if [ ! -e "$kernel" ]; then
    rm -rf ${work:?}/boot $work/*.deb
    (cd $work && timeout 300 apt-get download -qq -o APT::Sandbox::User=root "$image") || skip "$image could not be downloaded"
    dpkg --fsys-tarfile $work/*.deb | tar -x -C $work ./boot
    rm $work/*.deb
fi
for option in DMABUF_HEAPS_SYSTEM UDMABUF; do
    grep -q "^CONFIG_$option=y" $work/boot/config-* || skip "$image has no $option built in"
done

# ---- Tests, in one static program

gtest=/usr/src/googletest/googletest
cache=$(command -v ccache) || cache=
compile() {
    # shellcheck disable=SC2046,SC2086,SC2317
    $cache g++ -std=c++17 -O1 -w $(printf ' -I%s' include platform/*/include tests) \
        -isystem "$gtest/include" -I"$gtest" -c "$1" -o "$work/${1//\//_}.o"
}
export work gtest cache
export -f compile
rm -f $work/*.o
printf '%s\n' platform/*/*.cpp src/VXUtils.cpp src/VXBuffer*.cpp tests/VXBuffer*_test.cpp \
    tests/buffer_platform_test.cpp $gtest/src/gtest-all.cc $gtest/src/gtest_main.cc |
    xargs -P"$(nproc)" -I{} bash -ec 'compile {}'
g++ -static -Wl,--no-warnings -o $work/buffer_tests $work/*.o

# ---- Machine

root=$work/root
rm -rf $root && mkdir -p $root/{bin,dev,proc,sys,tmp}
cp /bin/busybox $root/bin
cp $work/buffer_tests $root/bin
cat >$root/init <<INIT
#!/bin/busybox sh
/bin/busybox mount -t devtmpfs none /dev
/bin/busybox mount -t proc none /proc
/bin/busybox mount -t sysfs none /sys
for source in ${sources[*]}; do
    echo "dmabuf: \$source"
    VX_TEST_SCALE=${VX_TEST_SCALE:-10} VX_DMABUF_SOURCE=\$source /bin/buffer_tests --gtest_brief=1 --gtest_color=no --gtest_shuffle
    echo "dmabuf: \$source ended with \$?"
done
/bin/busybox reboot -f
INIT
chmod +x $root/init
(cd $root && find . | cpio -o -H newc --quiet | gzip) >$work/initramfs

# By emulation, which works everywhere. A panic ends the machine, as does the reboot.
log=$work/console.log
timeout $boot_limit qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1G -nodefaults \
    -display none -no-reboot -serial stdio -kernel "$kernel" -initrd $work/initramfs \
    -append "console=ttyS0 quiet panic=-1" </dev/null 2>&1 | tr -d '\r' | tee $log ||
    echo "dmabuf: the machine did not end well"

passed=0
for source in "${sources[@]}"; do
    grep -qx "dmabuf: $source ended with 0" $log && passed=$((passed + 1))
done
failed=$((${#sources[@]} - passed))
finish $passed $failed 0 $((failed > 0))
