# What the scripts share. Sourced, with the working folder set to the project's root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# need PACKAGE...: installs those Debian packages that are missing; costs nothing when none is.
need() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    echo "installing: ${missing[*]}" >&2
    local sudo=()
    [ "$(id -u)" = 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# build PRESET [TARGET...]: configures it and builds the targets, or all. A compiler cache is used where
# there is one.
build() {
    local launcher=()
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake --preset "$1" "${launcher[@]}" >/dev/null
    cmake --build --preset "$1" ${2:+--target "${@:2}"}
}

build_packages=(g++ cmake ninja-build pkg-config googletest libcli11-dev nlohmann-json3-dev libpugixml-dev libavformat-dev
    libavcodec-dev libavutil-dev libswscale-dev ffmpeg python3)
