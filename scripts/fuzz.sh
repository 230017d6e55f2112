#!/usr/bin/env bash
# Builds the fuzzers and runs each over its kept corpus (tests/fuzz/corpus) and on from there. Ends at
# the first fault; the input that shows it is left in build/fuzz.
#
#   scripts/fuzz.sh [SECONDS]    for each fuzzer, default 60
source "$(dirname "$0")/lib.sh"

need "${build_packages[@]}" clang libclang-rt-14-dev
build fuzz
cd build/fuzz
run() {
    mkdir -p "found/$1"
    if VENDOR_VEXA_LOG_MSG=0 "tests/fuzz/fuzz_$1" "found/$1" "../../tests/fuzz/corpus/$1" -max_total_time="$2" \
        -timeout=20 -rss_limit_mb=4096 -max_len=8192 -verbosity=0 -print_final_stats=1 \
        -artifact_prefix="$PWD/$1-" >"$1.log" 2>&1; then
        echo "fuzz $1: no fault in $2 s, $(awk '/number_of_executed/ { print $2 }' "$1.log") inputs"
    else
        cat "$1.log"
        return 1
    fi
}
export -f run
printf '%s\n' ../../tests/fuzz/corpus/* | xargs -n1 basename |
    xargs -P2 -I{} bash -euo pipefail -c "run {} ${1:-60}"
