#!/usr/bin/env bash
# The HTML reports in a headless browser, see test-html.py. Screenshots and pages are left in build/html.
# Exit code 77: skipped, as the last line says.
#   scripts/test-html.sh [PRESET]
source "$(dirname "$0")/lib.sh"

skip() {
    echo "html: SKIPPED, $*"
    exit 77
}
need "${build_packages[@]}" chromium chromium-driver || skip "no chromium here"
timeout 60 chromium --headless --no-sandbox --disable-gpu --dump-dom about:blank >/dev/null 2>&1 ||
    skip "chromium does not run here"
build "${1:-debug}" vxrun
rm -rf build/html && mkdir -p build/html
python3 scripts/test-html.py "build/${1:-debug}/apps/vxrun/vxrun" build/html
