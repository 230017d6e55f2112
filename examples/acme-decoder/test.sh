#!/bin/sh
# Decodes clips of 8 and 10 bits with libavcodec and with acme/decoder: both give the same pictures. Then
# acme_test has the decoder alone.
#
#   test.sh VXRUN LIBRARY ACME_TEST
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for format in yuv420p yuv420p10le; do
    ffmpeg -v error -f lavfi -i testsrc2=size=176x144:rate=25:duration=1 -pix_fmt $format -c:v libx265 \
        -x265-params log-level=none:bframes=3 "$work/$format.h265"
    expected=$("$1" decode --quiet "$work/$format.h265")
    actual=$("$1" decode --quiet --nodes "$2" --decoder acme/decoder "$work/$format.h265")
    echo "$format: expected $expected, actual $actual"
    [ "$actual" = "$expected" ]
done
"$3" "$2" "$work/yuv420p.h265"
