#!/usr/bin/env bash
# Runs clang-tidy over the library, the platform, the kit and the application, with the debug build's flags.
source "$(dirname "$0")/lib.sh"

need clang-tidy-14
build debug >/dev/null
git ls-files -- 'src/*.cpp' 'platform/*.cpp' 'kit/*.cpp' 'apps/*.cpp' |
    xargs -P2 -n1 clang-tidy-14 --quiet -p build/debug --warnings-as-errors='*' 2>/dev/null ||
    { echo "clang-tidy: not clean; a file without a line above made it crash" >&2; exit 1; }
echo "clang-tidy: clean"
