#!/usr/bin/env bash
# Holds what vxrun says about failures against the truth. A decoder with planted faults (tests/nodes/faults.cpp)
# decodes real streams whose pictures are reordered, and states where its fault is.
#
#   scripts/test-cause.sh [PRESET]      default debug
#
# Of each stream:
#   named     a block of a picture that others refer to is changed, at four places: explain finds that picture,
#             and it is the first wrong one in decoding order that a run names
#   minimize  the stream that is left of block, crash, hang and a filter or an error is below a tenth of the
#             access units, or no more than the longest group of pictures
#   replay    a bundle of each failure fails in the same way in another folder, without the originals
#   order     a picture that is dropped, and two that are swapped, are called so
#
# Ends with "cause: N of M passed" and 0 or 1, or 77 where ../shared/streams is missing.
source "$(dirname "$0")/lib.sh"

streams=$PWD/../shared/streams
[ -d "$streams" ] || { echo "cause: SKIPPED, no folder $streams" && exit 77; }
need "${build_packages[@]}"
preset=${1:-debug}
build "$preset" vxrun faults >/dev/null
vxrun=$PWD/build/$preset/apps/vxrun/vxrun
nodes=$PWD/build/$preset/tests/nodes/libfaults.so
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

passed=0 total=0
# check NAME COMMAND...: one of the checks that the closing line counts.
check() {
    total=$((total + 1))
    if "${@:2}"; then
        passed=$((passed + 1))
    else
        echo "FAILED: $1" >&2
        sed 's/^/    /' "$work/log" | tail -20 >&2
    fi
}

# member FILE PATH: a value of a JSON file, such as failure.first.frame; empty when there is none.
member() {
    python3 -c 'import functools, json, sys
report = json.load(open(sys.argv[1]))
print(functools.reduce(lambda value, key: (value or {}).get(key), sys.argv[2].split("."), report))' \
        "$@" 2>/dev/null | sed 's/^None$//'
}

units() { ffprobe -v quiet -select_streams v:0 -show_entries packet=flags -of csv=p=0 "$1"; }

# faulty COMMAND STREAM FAULT AT OPTION...: runs vxrun's COMMAND with that fault; its output goes to $work/log.
faulty() {
    local expected=(--against libavcodec)
    [[ $3 != crash && $3 != hang && $3 != error ]] || expected=()
    timeout 300 "$vxrun" "$1" "$2" --nodes "$nodes" --decoder test/faulty --set decoder.fault="$3" \
        --set decoder.at="$4" --set decoder.of="$2" --stall 1 "${expected[@]}" "${@:5}" >"$work/log" 2>&1
}

# isRight STREAM: without a fault the decoder equals libavcodec's.
isRight() { faulty decode "$1" none 0; }

# isMapped STREAM AT: explain finds the picture that is decoded at AT where the decoder shows it.
isMapped() {
    faulty decode "$1" block "$2" || true
    read -r unit picture < <(sed -n 's/^fault: block in unit \([0-9]*\), picture \([0-9]*\)$/\1 \2/p' "$work/log")
    [ -n "$unit" ] || return 1
    shown=$(sed -n 's/^fault: shown as frame //p' "$work/log")
    local by=(--frame "$shown") end=", frame $shown"
    [ -n "$shown" ] || { by=(--unit "$unit") && end=", shown by no frame"; }
    timeout 60 "$vxrun" explain "$1" "${by[@]}" >"$work/log" 2>&1 || return 1
    # More frames may show it again.
    [[ "$(head -1 "$work/log")," == "picture $picture in decoding order"*"$end,"* ]] &&
        [[ $(sed -n 2p "$work/log") == *"in access unit $unit: "* ]]
}

# namesBlock STREAM AT: the first wrong picture is the one that was changed, or for one that is never
# shown its access unit is named.
namesBlock() {
    rm -f "$work/run.json"
    ! faulty decode "$1" block "$2" --json "$work/run.json" || return 1
    if [ -z "$shown" ]; then
        grep -v '^fault' "$work/log" | grep -q "unit $unit\b" && return
    fi
    local at=run.failure.first_in_decoding_order
    [ "$(member "$work/run.json" $at.unit)" = "$unit" ] &&
        [ "$(member "$work/run.json" $at.picture)" = "$picture" ] &&
        [ "$(member "$work/run.json" $at.frame)" = "$shown" ]
}

# isCut STREAM FAULT AT: what is left of the stream is short. Its units are in $left.
isCut() {
    local small=$work/small.${1##*.} all longest
    rm -f "$small"
    left=-
    faulty minimize "$@" -o "$small" && [ -s "$small" ] || return 1
    all=$(units "$1" | wc -l)
    longest=$(units "$1" | awk '/K/ {n = 0} ++n > most {most = n} END {print most}')
    left=$(units "$small" | wc -l)
    [ "$left" -gt 0 ] && { [ $((left * 10)) -lt "$all" ] || [ "$left" -le "$longest" ]; }
}

# isReplayed STREAM FAULT AT: its bundle fails in the same way where nothing but the bundle is.
isReplayed() {
    local old=$work/old new=$work/new
    rm -rf "$old" "$new" && mkdir "$old" "$new"
    cp "$1" "$old"
    ! faulty decode "$old/${1##*/}" "${@:2}" --bundle "$new/fail.tar.zst" || return 1
    rm -r "$old"
    (cd "$new" && timeout 60 "$vxrun" replay fail.tar.zst --nodes "$nodes") >"$work/log" 2>&1
}

# isTold STREAM FAULT AT PATTERN: vxrun's own words are such.
isTold() {
    ! faulty decode "${@:1:3}" || return 1
    grep -v '^fault:' "$work/log" | grep -qE "$4"
}

# made NAME FRAMES OPTION...: encodes a stream.
made() {
    ffmpeg -v error -nostdin -f lavfi -i testsrc2=s=176x144:r=25 -frames:v "$2" -pix_fmt yuv420p \
        "${@:3}" -threads 1 "$work/$1"
}
made x264.mp4 150 -c:v libx264 -g 30 -bf 3 -b_strategy 0 -x264-params b-pyramid=normal:keyint_min=30
made x265.mkv 100 -c:v libx265 -x265-params log-level=none:keyint=25:min-keyint=25:bframes=4:b-pyramid=1

table='%-42s %5s %6s %5s %5s %5s %5s %6s %5s\n'
# shellcheck disable=SC2059
printf "$table" stream units named block crash hang other replay order
while read -r stream other places; do
    case $stream in made/*) path=$work/${stream#made/} ;; *) path=$streams/$stream ;; esac
    read -ra at <<<"$places"
    check "$stream: no fault" isRight "$path"
    before=$passed
    for place in "${at[@]}"; do
        check "$stream: the picture at $place is found" isMapped "$path" "$place"
        check "$stream: block at $place is named" namesBlock "$path" "$place"
    done
    row=("$stream" "$(units "$path" | wc -l)" "$((passed - before))/$((2 * ${#at[@]}))")
    for fault in block crash hang "$other"; do
        place=${at[2]}
        [ "$fault" != nofilter ] || place=0
        check "$stream: minimize $fault" isCut "$path" "$fault" "$place"
        row+=("$left")
    done
    before=$passed
    for fault in block drop swap crash hang "$other"; do
        place=${at[1]}
        [ "$fault" != nofilter ] || place=0
        check "$stream: replay $fault" isReplayed "$path" "$fault" "$place"
    done
    row+=("$((passed - before))/6")
    before=$passed
    check "$stream: drop is told" isTold "$path" drop "${at[1]}" 'shifted by|missing|dropped'
    check "$stream: swap is told" isTold "$path" swap "${at[1]}" 'swapped|order'
    # shellcheck disable=SC2059
    printf "$table" "${row[@]}" "$((passed - before))/2"
done <<'END'
h264/test-25fps.h264 nofilter 1 50 125 187
hevc/bear.h265 nofilter 1 6 15 22
vp9/test-25fps.vp9 error 1 51 125 187
vp9/vp90-2-10-show-existing-frame2.vp9.ivf error 1 3 5 7
av1/av1-176x144-main-basic-10.ivf error 1 7 14 22
av1/av1-sizeup-fluster.ivf nofilter 1 5 9 15
made/x264.mp4 nofilter 1 31 75 112
made/x265.mkv nofilter 1 31 60 85
END
echo "cause: $passed of $total passed"
[ "$passed" = "$total" ]
