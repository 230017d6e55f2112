#!/usr/bin/env bash
# Builds the benchmarks and runs them: works per second, ns per work and hop, context switches per
# work, each beside the baseline of the same program.
#
#   scripts/bench.sh [--smoke] [BENCHMARK OPTION...]    --smoke: every benchmark once, briefly
source "$(dirname "$0")/lib.sh"

need "${build_packages[@]}" libbenchmark-dev
build release
options=(--benchmark_counters_tabular=true)
if [ "${1:-}" = --smoke ]; then
    shift
    options+=(--benchmark_min_time=0.001)
fi
for program in build/release/bench/*_bench; do
    "$program" "${options[@]}" "$@"
done
