#!/bin/sh
# A suite of clips of 8 and 10 bits, and of more streams: libavcodec fills in the results, and acme/decoder
# has to give the same. Then acme_test has the decoder alone.
#
#   test.sh VXRUN LIBRARY ACME_TEST [STREAM...]
set -eu
vxrun=$1 library=$2 test=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
vectors=
for format in yuv420p yuv420p10le; do
    ffmpeg -v error -f lavfi -i testsrc2=size=176x144:rate=25:duration=1 -pix_fmt $format -c:v libx265 \
        -x265-params log-level=none:bframes=3 "$work/$format.h265"
done
for stream in "$work"/*.h265 "$@"; do
    name=$(basename "$stream")
    mkdir -p "$work/HEVC/$name"
    cp "$stream" "$work/HEVC/$name"
    vectors="$vectors${vectors:+,}{\"name\": \"$name\", \"source\": \"\", \"source_checksum\": \"\", \"input_file\": \"$name\",
        \"output_format\": \"None\", \"result\": \"\"}"
done
echo "{\"name\": \"HEVC\", \"codec\": \"H.265\", \"description\": \"\", \"test_vectors\": [$vectors]}" >"$work/suite.json"
"$vxrun" reference "$work/suite.json" --resources "$work" --decoder libavcodec
"$vxrun" suite "$work/suite.json" --resources "$work" --nodes "$library" --decoder acme/decoder
"$test" "$library" "$work/yuv420p.h265"
