#!/usr/bin/env bash
# The main job on real input: makes clips and their checksum lists with the ffmpeg program, runs the
# shipped graphs on them, then damages one byte of one frame and shows that vxrun finds it.
source "$(dirname "$0")/lib.sh"

need "${build_packages[@]}"
build release vxrun
vxrun=build/release/apps/vxrun/vxrun
graphs=apps/vxrun/graphs
work=build/demo
rm -rf "$work" && mkdir -p "$work"

# expect CODE COMMAND...: runs it in plain sight and stops the demo when its exit code is another.
expect() {
    local want=$1 got=0
    shift
    printf '\n$ %s\n' "$*"
    "$@" || got=$?
    echo "exit: $got"
    [ "$got" = "$want" ] || { echo "demo: expected exit $want" >&2; exit 1; }
}

# makeClip SIZE PIXEL_FORMAT COLOUR_SPACE NAME: 50 frames of ffmpeg's test picture as NAME.y4m, and ffmpeg's
# checksum of each frame as NAME.framemd5. The samples are put into the file here, since ffmpeg's own
# YUV4MPEG2 writer cuts the chroma rows of odd widths beyond 8 bits.
makeClip() {
    ffmpeg -v error -f lavfi -i "testsrc=size=$1:rate=25" -frames:v 50 -pix_fmt "$2" -f rawvideo "$work/raw"
    ffmpeg -v error -f lavfi -i "testsrc=size=$1:rate=25" -frames:v 50 -pix_fmt "$2" \
        -fflags +bitexact -f framemd5 "$work/$4.framemd5"
    local bytes=$(($(stat -c %s "$work/raw") / 50)) i
    {
        echo "YUV4MPEG2 W${1%x*} H${1#*x} F25:1 Ip A1:1 C$3"
        for ((i = 0; i < 50; ++i)); do
            echo FRAME
            head -c $bytes
        done
    } <"$work/raw" >"$work/$4.y4m"
    rm "$work/raw"
}

for size in 352x288 177x145; do
    makeClip $size yuv420p 420jpeg $size-8bit
    makeClip $size yuv420p10le 420p10 $size-10bit
done

for clip in 352x288-8bit 352x288-10bit 177x145-8bit 177x145-10bit; do
    for allocator in dmabuf xcodec2; do
        expect 0 $vxrun $graphs/linear.json --stats --set reader.allocator=$allocator \
            --set reader.file="$work/$clip.y4m" --set check.expect="$work/$clip.framemd5"
    done
    expect 0 $vxrun $graphs/fanout.json --set reader.file="$work/$clip.y4m" \
        --set check.expect="$work/$clip.framemd5" --set writer.file="$work/$clip.yuv"
    echo "$work/$clip.yuv: $(stat -c %s "$work/$clip.yuv") bytes of samples"
done

# One bit of one byte, 1000 bytes into frame 12 (from 0). A frame is "FRAME", a line feed, the planes.
clip=352x288-8bit frame=12
cp "$work/$clip.y4m" "$work/damaged.y4m"
header=$(head -n1 "$work/damaged.y4m" | wc -c)
offset=$((header + frame * (6 + 352 * 288 * 3 / 2) + 6 + 1000))
byte=$(od -An -tu1 -j$offset -N1 "$work/damaged.y4m")
printf "\\x$(printf %x $((byte ^ 1)))" |
    dd of="$work/damaged.y4m" bs=1 seek=$offset conv=notrunc status=none
printf '\nByte %d of %s changed, in frame %d.\n' $offset "$work/damaged.y4m" $frame
expect 1 $vxrun $graphs/linear.json \
    --set reader.file="$work/damaged.y4m" --set check.expect="$work/$clip.framemd5"
