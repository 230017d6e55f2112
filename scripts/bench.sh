#!/usr/bin/env bash
# Builds the benchmarks and compares vxrun and libvxbase with their peers on the same work: prints tables of
# medians, ranges and ratios, and writes results.md, results.json and results.svg to build/release/bench.
#
#   scripts/bench.sh [--quick] [--rounds N] [--runs N] [--only TEXT]
#   scripts/bench.sh --video [OPTION...]                     vxrun alone: what its users wait for
#   scripts/bench.sh --buffers [BENCHMARK OPTION...]         what a buffer costs, recycled and fresh
#   scripts/bench.sh --smoke                                 everything once, briefly
source "$(dirname "$0")/lib.sh"

peers=(libgstreamer1.0-dev libglib2.0-dev libboost-dev libtbb-dev)
peers+=(gstreamer1.0-tools gstreamer1.0-plugins-{good,bad} gstreamer1.0-libav)
need "${build_packages[@]}" libbenchmark-dev python3 time "${peers[@]}"
build release

buffers() { build/release/bench/buffers_bench --benchmark_counters_tabular=true "$@"; }
case ${1:-} in
    --buffers) buffers "${@:2}" ;;
    --smoke)
        buffers --benchmark_min_time=0.001
        bench/compare.py --smoke
        ;;
    *) bench/compare.py "$@" ;;
esac
