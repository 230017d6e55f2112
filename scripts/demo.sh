#!/usr/bin/env bash
# The main job on real input: makes clips with the ffmpeg program and takes its checksum lists as what is
# expected; runs the shipped graphs on raw and coded clips, transcodes one, runs a suite, then damages
# clips and shows that vxrun finds where; at last from a wrong decoder to a bundle with the shortest
# stream that shows it. What it makes is left in build/demo; report.html is to be looked at.
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

# ---- Raw pictures

makeClip 352x288 yuv420p 420jpeg 352x288-8bit
makeClip 177x145 yuv420p10le 420p10 177x145-10bit
for clip in 352x288-8bit 177x145-10bit; do
    for allocator in dmabuf xcodec2; do
        expect 0 $vxrun $graphs/linear.json --stats --set reader.allocator=$allocator \
            --set reader.file="$work/$clip.y4m" --set check.expect="$work/$clip.framemd5"
    done
    expect 0 $vxrun $graphs/fanout.json --set reader.file="$work/$clip.y4m" \
        --set check.expect="$work/$clip.framemd5" --set writer.file="$work/$clip.yuv"
done

# ---- Coded pictures, against ffmpeg's own decoding

# encode NAME CODEC...: 60 frames with a key frame every 12, and the list of what ffmpeg decodes.
encode() {
    local file="$work/$1"
    shift
    ffmpeg -v error -f lavfi -i testsrc=size=352x288:rate=25 -frames:v 60 -pix_fmt yuv420p -g 12 "$@" "$file"
    ffmpeg -v error -i "$file" -fps_mode passthrough -autoscale 0 -f framemd5 "$file.framemd5"
}
encode clip.264 -c:v libx264
encode clip.265 -c:v libx265 -x265-params log-level=none
encode clip.webm -c:v libvpx-vp9 -deadline realtime
for clip in clip.264 clip.265 clip.webm; do
    for allocator in dmabuf xcodec2; do
        expect 0 $vxrun $graphs/decode.json --set decoder.allocator=$allocator \
            --set reader.file="$work/$clip" --set check.expect="$work/$clip.framemd5"
    done
done
expect 0 $vxrun $graphs/transcode.json --set reader.file="$work/clip.264"

# ---- A suite, with a report for a CI

mkdir -p "$work/vectors"
cat >"$work/demo-suite.json" <<END
{"name": "demo", "codec": "None", "description": "the clips of the demo", "test_vectors": [
END
separator=
for clip in clip.264 clip.265; do
    mkdir -p "$work/vectors/demo/$clip" && cp "$work/$clip" "$work/vectors/demo/$clip/"
    md5=$(ffmpeg -v error -i "$work/$clip" -fps_mode passthrough -f md5 -)
    echo "$separator{\"name\": \"$clip\", \"source\": \"\", \"source_checksum\": \"__skip__\", \"input_file\": \"$clip\"," \
        "\"output_format\": \"yuv420p\", \"profile\": \"${clip#*.}\", \"result\": \"${md5#MD5=}\"}"
    separator=,
done >>"$work/demo-suite.json"
echo ']}' >>"$work/demo-suite.json"
expect 0 $vxrun suite "$work/demo-suite.json" --resources "$work/vectors" --jobs 2 --junit "$work/junit.xml"
cat "$work/junit.xml"

# ---- Damage, and where it is

# One bit of one byte, 1000 bytes into frame 12 (from 0). A frame is "FRAME", a line feed, the planes.
clip=352x288-8bit frame=12
cp "$work/$clip.y4m" "$work/damaged.y4m"
header=$(head -n1 "$work/damaged.y4m" | wc -c)
flip() { # FILE OFFSET: its lowest bit
    local byte
    byte=$(od -An -tu1 -j"$2" -N1 "$1")
    printf "\\x$(printf %x $((byte ^ 1)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}
flip "$work/damaged.y4m" $((header + frame * (6 + 352 * 288 * 3 / 2) + 6 + 1000))
printf '\nOne bit of frame %d of %s changed.\n' $frame "$work/damaged.y4m"
expect 1 $vxrun $graphs/linear.json \
    --set reader.file="$work/damaged.y4m" --set check.expect="$work/$clip.framemd5"

# A bit in the middle of the coded pictures: what the decoder makes of it beside what it should be.
cp "$work/clip.264" "$work/damaged.264"
flip "$work/damaged.264" $(($(stat -c %s "$work/damaged.264") / 2))
printf '\nOne bit of %s changed.\n' "$work/damaged.264"
expect 1 $vxrun $graphs/compare.json --set decoder.tolerate_errors=true --dump-bad "$work/bad" \
    --set reader.file="$work/damaged.264" --set reference.file="$work/clip.264"
ls "$work"/bad/*.png

# ---- From a failure to its cause

# A decoder with a fault: it leaves out the loop filter but in key frames.
cat >"$work/mine.json" <<END
{"name": "mine", "probe": ["ffmpeg", "-version"],
 "command": ["ffmpeg", "-v", "error", "-y", "-skip_loop_filter", "nokey", "-i", "{input}", "-f", "rawvideo", "{output}"]}
END
mine=(--decoder "$work/mine.json" --against libavcodec)
expect 1 $vxrun decode "$work/clip.264" "${mine[@]}" --dump-bad "$work/wrong" --html "$work/report.html"
expect 0 $vxrun minimize "$work/clip.264" "${mine[@]}" -o "$work/small.264"
expect 1 $vxrun decode "$work/small.264" "${mine[@]}" --bundle "$work/fail.tar.zst"
expect 0 $vxrun replay "$work/fail.tar.zst"
echo "the report: $work/report.html"
