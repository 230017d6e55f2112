#!/usr/bin/env bash
# Interrupts every command that writes files, and kills it, at many moments of its run.
#
#   scripts/test-interrupts.sh [PRESET [MOMENTS]]      default debug, 12 of each
#
# After an interrupt it ends within moments, its files are complete or not there, and nothing else is: no
# part of a file, no temporary folder, no process. After a SIGKILL parts may stay, under their own names.
#
# Ends with "interrupts: N of M passed" and 0 or 1, or 77 where ../shared/streams is missing.
source "$(dirname "$0")/lib.sh"

streams=$PWD/../shared/streams
[ -d "$streams" ] || { echo "interrupts: SKIPPED, no folder $streams" && exit 77; }
need "${build_packages[@]}" zstd
preset=${1:-debug} moments=${2:-12}
build "$preset" vxrun faults >/dev/null
vxrun=$PWD/build/$preset/apps/vxrun/vxrun
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export VXRUN_NODES=$PWD/build/$preset/tests/nodes/libfaults.so
export TMPDIR=$work/tmp INTERRUPTED=$work # by which its processes are known

# ---- What the commands read: a stream, a suite of it, and a bundle and a report of a failure

clip=$work/clip.h264
cp "$streams/h264/test-25fps.h264" "$clip"
faulty=(--decoder test/faulty --set decoder.fault=block --set decoder.at=100 --set "decoder.of=$clip")
mkdir -p "$TMPDIR" "$work/vectors/S"
python3 - "$work" <<'END'
import json, os, sys
names = [f"v{number}" for number in range(4)]
for name in names:
    os.makedirs(f"{sys.argv[1]}/vectors/S/{name}")
    os.link(f"{sys.argv[1]}/clip.h264", f"{sys.argv[1]}/vectors/S/{name}/clip.h264")
vectors = [{"name": name, "source": "", "source_checksum": "__skip__", "input_file": "clip.h264",
            "output_format": "yuv420p", "result": "0" * 32} for name in names]
suite = {"name": "S", "codec": "H.264", "description": "", "test_vectors": vectors}
json.dump(suite, open(sys.argv[1] + "/S.json", "w"))
END
"$vxrun" decode "$clip" "${faulty[@]}" --against libavcodec --json "$work/old.json" --bundle "$work/old.tar.zst" \
    >"$work/log" 2>&1 || true

reports=(--json out.json --junit out.xml --html out.html --bundle out.tar.zst --dump-bad bad)
tables=(--csv out.csv --markdown out.md)
graph=$PWD/apps/vxrun/graphs/decode.json list=$streams/h264/test-25fps.h264.framemd5
commands=(
    "graph|$graph --set reader.file=$clip --set check.expect=$list --json out.json --trace trace.json"
    "decode|decode $clip ${faulty[*]} --against libavcodec -o out.yuv ${reports[*]}"
    "suite|suite $work/S.json --resources $work/vectors ${faulty[*]} --against libavcodec ${tables[*]} ${reports[*]}"
    "minimize|minimize $clip ${faulty[*]} --against libavcodec -o small.h264 --json out.json"
    "replay|replay $work/old.tar.zst"
    "report|report $work/old.json --html out.html"
    "explain|explain $clip --frame 100"
)

# ---- The checks

left() { env -u INTERRUPTED grep -lzsF "INTERRUPTED=$work" /proc/[0-9]*/environ || true; }

# goneWithin SECONDS: no process of the command is left by then.
goneWithin() {
    local deadline=$((SECONDS + $1))
    while [ -n "$(left)" ]; do
        [ $SECONDS -lt $deadline ] || return 1
        read -rt 0.05 <> <(:) || true # nothing comes
    done
}

isComplete() {
    case $1 in
        *.json) python3 -c 'import json, sys; json.load(open(sys.argv[1]))' "$1" ;;
        *.xml) python3 -c 'import sys, xml.dom.minidom as xml; xml.parse(sys.argv[1])' "$1" ;;
        *.html) grep -q '</html>' <(tail -c 20 "$1") ;;
        *.tar.zst) tar --zstd -tf "$1" ;;
        *.csv | *.md) [ -s "$1" ] && [ -z "$(tail -c 1 "$1")" ] ;;
        *.yuv) [ "$(stat -c %s "$1")" = $((320 * 240 * 250 * 3 / 2)) ] ;;
        *.h264 | *.png) [ -s "$1" ] && ffmpeg -nostdin -v error -i "$1" -f null - ;;
        *.raw) [ -s "$1" ] ;;
        *.dot) grep -q '^}' <(tail -n 1 "$1") ;;
        *) false ;;
    esac >/dev/null 2>&1
}

# isClean SIGNAL: what it left in the folder.
isClean() {
    local file
    while read -r file; do
        [[ $1 != KILL || $file != *.part* ]] || continue
        isComplete "$file" || { echo "incomplete: $file" && return 1; }
    done < <(find . -type f)
    goneWithin 10 || { echo "a process is left: $(left | xargs -n1 dirname | xargs -I{} cat {}/comm)" && return 1; }
    [ "$1" = KILL ] || [ -z "$(ls -A "$TMPDIR")" ] || { echo "left in TMPDIR: $(ls -A "$TMPDIR")" && return 1; }
}

# stopped SIGNAL SECONDS WORD...: runs vxrun, and sends it the signal then.
stopped() {
    rm -rf "$work/run" "${TMPDIR:?}"/* && mkdir "$work/run" && cd "$work/run"
    status=0
    timeout --foreground -s "$1" -k 10 "$2" "$vxrun" "${@:3}" >"$work/log" 2>&1 || status=$?
    [ "$1" = KILL ] || [ $status != 137 ] || { echo "it does not end" && return 1; }
    isClean "$1"
}

# isWhole WORD...: the command came to its end, and made the files that it names.
isWhole() {
    [ $status -le 1 ] || { echo "exit code $status" && return 1; }
    local word
    for word in "$@"; do
        [[ ! $word =~ ^[a-z]+\.[a-z0-9.]+$ || -s $word ]] || { echo "no $word" && return 1; }
    done
}

passed=0 total=0
for command in "${commands[@]}"; do
    read -ra words <<<"${command#*|}"
    start=$(date +%s%N)
    total=$((total + 1)) before=$passed
    if found=$(stopped INT 120 "${words[@]}" && isWhole "${words[@]}"); then
        passed=$((passed + 1))
    else
        echo "FAILED: ${command%%|*}, to its end: $found" >&2
        sed 's/^/    /' "$work/log" | tail -5 >&2
    fi
    milliseconds=$((($(date +%s%N) - start) / 1000000))
    for signal in INT KILL; do
        for ((i = 1; i <= moments; i++)); do
            moment=$(printf '%d.%03d' $((milliseconds * i / moments / 1000)) $((milliseconds * i / moments % 1000)))
            total=$((total + 1))
            if found=$(stopped $signal "$moment" "${words[@]}"); then
                passed=$((passed + 1))
            else
                printf 'FAILED: %s, SIG%s after %s s: %s\n' "${command%%|*}" $signal "$moment" "$found" >&2
                tail -5 "$work/log" | sed 's/^/    /' >&2
            fi
        done
    done
    printf '%-9s %6d ms  %d of %d passed\n' "${command%%|*}" $milliseconds $((passed - before)) $((2 * moments + 1))
done
echo "interrupts: $passed of $total passed"
[ "$passed" = "$total" ]
