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

# debianSources: the Debian archives that this machine's apt uses, for mmdebstrap.
debianSources() {
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian'
}

# arm64Root: build/arm64-root, Debian's libraries for AArch64: unpacked, not configured. Its database of
# packages is for dpkg-shlibdeps, which looks for files where they are here.
arm64Root() {
    local root=$PWD/build/arm64-root packages
    packages=$(IFS=, && echo "libc6-dev,libstdc++6,${library_packages[*]}")
    [ "$packages" != "$(cat "$root/packages" 2>/dev/null)" ] || return 0
    need mmdebstrap
    rm -rf "$root"
    debianSources | mmdebstrap --quiet --mode=chrootless --variant=extract --architectures=arm64 --include="$packages" \
        --skip=cleanup/apt/cache '' "$root" -
    local link deb name kind database=$root/var/lib/dpkg
    rm -rf "$root"/{dev,etc,tmp} # the emulator would take them for the machine's
    find "$root"/{lib,usr/lib} -lname '/*' | while read -r link; do ln -sfr "$root$(readlink "$link")" "$link"; done
    mkdir -p "$database/info"
    printf '%s\n' amd64 arm64 >"$database/arch"
    echo 1 >"$database/info/format"
    for deb in "$root"/var/cache/apt/archives/*.deb; do
        name=$database/info/$(dpkg-deb -f "$deb" Package)
        [ "$(dpkg-deb -f "$deb" Multi-Arch)" != same ] || name+=:arm64
        { dpkg-deb -f "$deb" && echo -e 'Status: install ok installed\n'; } >>"$database/status"
        dpkg-deb --fsys-tarfile "$deb" | tar -t | sed "s,^\.,$root,; s,/\$,," >"$name.list"
        dpkg-deb -e "$deb" "$root/control"
        for kind in symbols shlibs; do
            [ ! -e "$root/control/$kind" ] || mv "$root/control/$kind" "$name.$kind"
        done
        rm -r "$root/control" "$deb"
    done
    echo "$packages" >"$root/packages"
}

# What vxrun is linked with.
library_packages=(libcli11-dev nlohmann-json3-dev libpugixml-dev libavformat-dev libavcodec-dev libavutil-dev
    libswscale-dev libssl-dev zlib1g-dev)
build_packages=(g++ cmake ninja-build pkg-config googletest ffmpeg python3 libdav1d-dev
    "${library_packages[@]}")
